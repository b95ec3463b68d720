#!/usr/bin/env python3
"""What programs may expect of any file system, and where docs/mount.md promises something else; in the working directory,
which is left empty. Each check is a line; only failures are printed."""
import os,fcntl,errno,mmap,struct,threading,time,sys,subprocess
failed = False
def err(f,*a):
    try: f(*a); return None
    except OSError as e: return errno.errorcode[e.errno]
def check(name,cond,*more):
    global failed
    if not cond:
        failed = True
        print("  failed:", name, *more)
# deleted open
f=open('x','w+b'); f.write(b'abc'); f.flush(); os.unlink('x'); f.seek(0); check('deleted still readable', f.read()==b'abc')
check('gone', not os.path.exists('x')); os.fchmod(f.fileno(),0o600); check('fstat', os.fstat(f.fileno()).st_size==3)
g=open('x','w'); g.write('new'); g.close(); check('name free again', open('x').read()=='new'); f.write(b'more'); f.flush(); f.seek(0); check('d2',f.read()==b'abcmore'); f.close()
check('listing clean', os.listdir('.')==['x'], os.listdir('.'))
time.sleep(0.2)
# rename over open
a=open('a','w+'); a.write('AAA'); a.flush(); b=open('b','w+'); b.write('BBB'); b.flush()
os.rename('a','b'); check('replaced', open('b').read()=='AAA'); b.seek(0); check('old still open', b.read()=='BBB'); a.write('x'); a.flush(); check('through', open('b').read()=='AAAx'); a.close(); b.close()
# rename dir with open
os.mkdir('d'); os.mkdir('d/e'); h=open('d/e/f','w+'); h.write('1'); h.flush(); fcntl.lockf(h,fcntl.LOCK_EX)
os.rename('d','dd'); h.write('2'); h.flush(); h.seek(0); check('dir renamed', os.path.exists('dd/e/f') and h.read()=='12'); h.seek(2)
r=subprocess.run([sys.executable,'-c','import fcntl;h=open("dd/e/f","r+");\ntry: fcntl.lockf(h,fcntl.LOCK_EX|fcntl.LOCK_NB); print("got")\nexcept OSError as e: print(e.errno)'],capture_output=True,text=True).stdout.strip()
check('lock survives', r in ('11','13'), r)
fcntl.lockf(h,fcntl.LOCK_UN,1,0)
r=subprocess.run([sys.executable,'-c','import fcntl;h=open("dd/e/f","r+");fcntl.lockf(h,fcntl.LOCK_EX|fcntl.LOCK_NB,1,0);print("one")\ntry: fcntl.lockf(h,fcntl.LOCK_EX|fcntl.LOCK_NB,1,1); print("got")\nexcept OSError as e: print(e.errno)'],capture_output=True,text=True).stdout.split()
check('split lock', r==['one','11'] or r==['one','13'], r)
# blocking lock
p=subprocess.Popen([sys.executable,'-c','import fcntl;h=open("dd/e/f","r+");fcntl.lockf(h,fcntl.LOCK_EX);print("got")'],stdout=subprocess.PIPE,text=True)
time.sleep(0.5); check('waits', p.poll() is None); h.close(); check('granted', p.communicate(timeout=5)[0].strip()=='got')
# interrupted lock wait
h=open('dd/e/f','r+'); fcntl.flock(h,fcntl.LOCK_EX)
p=subprocess.Popen([sys.executable,'-c','import fcntl,signal;signal.signal(signal.SIGALRM,lambda *a:(_ for _ in ()).throw(KeyError()));signal.alarm(1)\nh=open("dd/e/f","r+")\ntry: fcntl.flock(h,fcntl.LOCK_EX)\nexcept KeyError: print("intr")'],stdout=subprocess.PIPE,text=True)
check('interrupted', p.communicate(timeout=5)[0].strip()=='intr'); h.close()
# rename flags
import ctypes
libc=ctypes.CDLL(None,use_errno=True)
def ren2(a,b,fl):
    r=libc.renameat2(-100,a.encode(),-100,b.encode(),fl); return 0 if r==0 else errno.errorcode[ctypes.get_errno()]
open('r1','w').close(); open('r2','w').close()
check('noreplace', ren2('r1','r2',1)=='EEXIST'); check('exchange', ren2('r1','r2',2)=='EINVAL'); check('noreplace ok', ren2('r1','r3',1)==0)
check('link', err(os.link,'r2','r4')=='EPERM')
os.mkdir('q'); check('dir over file', err(os.rename,'q','r2')=='ENOTDIR'); check('file over dir', err(os.rename,'r2','q')=='EISDIR'); os.mkdir('q2'); os.rename('q','q2'); check('dir over empty', os.path.isdir('q2') and not os.path.exists('q'))
open('q2/x','w').close(); os.mkdir('q'); check('dir over full', err(os.rename,'q','q2')=='ENOTEMPTY'); check('rmdir full', err(os.rmdir,'q2')=='ENOTEMPTY')
check('into itself', err(os.rename,'q2','q2/y')=='EINVAL')
# modes
os.chmod('r2',0o755); check('mode', os.stat('r2').st_mode&0o7777==0o755, oct(os.stat('r2').st_mode)); os.chmod('r2',0o444); check('ro', os.stat('r2').st_mode&0o7777==0o444,oct(os.stat('r2').st_mode)); os.chmod('r2',0o600); check('rw', os.stat('r2').st_mode&0o7777==0o600,oct(os.stat('r2').st_mode)); os.chmod('r2',0o400); os.rename('r3','r2'); check('over ro', os.stat('r2').st_mode&0o777==0o644); os.chmod('r2',0o400); os.unlink('r2')
os.chown('x',1000,1001); check('owner', (os.stat('x').st_uid,os.stat('x').st_gid)==(1000,1001))
fd=os.open('m',os.O_CREAT|os.O_WRONLY|os.O_EXCL,0o400); os.write(fd,b'z'); os.close(fd); check('create ro', open('m').read()=='z' and os.stat('m').st_mode&0o777==0o400)
# xattr
os.setxattr('x','user.comment',b'hi'); check('xattr', os.getxattr('x','user.comment')==b'hi' and os.listxattr('x')==['user.comment'], os.listxattr('x'))
check('xcreate', err(os.setxattr,'x','user.comment',b'a',os.XATTR_CREATE)=='EEXIST'); check('xrepl', err(os.setxattr,'x','user.other',b'a',os.XATTR_REPLACE)=='ENODATA'); os.removexattr('x','user.comment'); check('xrm', os.listxattr('x')==[]); check('xget', err(os.getxattr,'x','user.comment')=='ENODATA')
# times
os.utime('x',ns=(1234567890123456700,1334567890123456700)); s=os.stat('x'); check('times',(s.st_atime_ns,s.st_mtime_ns)==(1234567890123456700,1334567890123456700),s)
# fallocate, truncate
fd=os.open('fa',os.O_CREAT|os.O_RDWR); os.posix_fallocate(fd,0,100000); check('fallocate', os.fstat(fd).st_size==100000); check('falloc zero', os.pread(fd,100000,0)==bytes(100000)); r=libc.fallocate(fd,1,ctypes.c_long(0),ctypes.c_long(300000)); check('keep size', os.fstat(fd).st_size==100000 and r==0,r, os.fstat(fd).st_blocks*512); r=libc.fallocate(fd,0,ctypes.c_long(1<<40),ctypes.c_long(1)); check('space behind a hole', r==-1 and ctypes.get_errno()==errno.EOPNOTSUPP and os.fstat(fd).st_size==100000,r,ctypes.get_errno()); os.ftruncate(fd,5); check('trunc',os.fstat(fd).st_size==5); os.truncate('fa',50000); check('trunc2', os.pread(fd,60000,0)==bytes(50000)); os.close(fd)
# mmap
fd=os.open('mm',os.O_CREAT|os.O_RDWR); os.ftruncate(fd,8192); mm=mmap.mmap(fd,8192); mm[100:105]=b'hello'; mm[8000:8003]=b'end'; mm.flush(); check('mmap', open('mm','rb').read()[100:105]==b'hello'); os.pwrite(fd,b'W',0); check('mmap sees write', mm[0:1]==b'W'); mm[1:2]=b'M'; check('read sees map', os.pread(fd,2,0)==b'WM'); mm.close(); os.close(fd)
# names
for n in ['a:b','q?','st*r','<>','back\\slash','tab\t','"','trail.','trail ','ünï','\u4e2d\u6587','\U0001f600', 'x'*255]:
    e=None
    try:
        open(n,'w').write(n); ok=open(n).read()==n and n in os.listdir('.'); os.unlink(n); ok=ok and n not in os.listdir('.')
    except OSError as ex: ok=False; e=ex
    check('name '+repr(n[:10]), ok, e)
check('long', err(open,'x'*256,'w')=='ENAMETOOLONG')
b=b'\xff\xfe'; open(b,'w').close(); check('bytes', b in os.listdir(b'.')); os.unlink(b)
# case
open('Case','w').write('c'); check('case', open('CASE').read()=='c'); os.rename('Case','cASE'); os.unlink('CASE')
# append, O_TRUNC
fd=os.open('ap',os.O_CREAT|os.O_WRONLY|os.O_APPEND); os.write(fd,b'1'); os.write(fd,b'2'); os.close(fd); check('append', open('ap').read()=='12'); open('ap','w').close(); check('trunc open', os.stat('ap').st_size==0)
# symlinks
os.symlink('x','sl'); check('symlink', os.readlink('sl')=='x' and os.lstat('sl').st_size==1); os.symlink('../dd/e/f','dd/sl2'); check('symlink2', os.readlink('dd/sl2')=='../dd/e/f' or os.readlink('dd/sl2')=='e/f', os.readlink('dd/sl2')); check('follow', open('sl').read()=='new'); os.rename('sl','sl3'); check('rename link', os.readlink('sl3')=='x'); check('outside', err(os.symlink,'/etc/passwd','sl4')=='EPERM'); os.symlink('nowhere','dangling'); check('dangling', err(open,'dangling')=='ENOENT' and os.readlink('dangling')=='nowhere'); os.rename('ap','sl3'); check('over link', not os.path.islink('sl3')); os.unlink('dangling')
check('enotdir', err(os.mkdir,'x/y')=='ENOTDIR'); check('enoent', err(os.mkdir,'nope/y')=='ENOENT'); check('eexist', err(os.mkdir,'q')=='EEXIST')
fd=os.open('.',os.O_RDONLY); os.fsync(fd); os.close(fd); fd=os.open('q2',os.O_RDONLY); os.fsync(fd); os.close(fd)
fd=os.open('x',os.O_RDONLY); os.fsync(fd); os.close(fd)
# rmdir while listing, seek dir
os.mkdir('big'); [open('big/%d'%i,'w').close() for i in range(1000)]
it=os.scandir('big'); n=0
for e in it: os.unlink(e.path); n+=1
check('delete while listing', n==1000 and os.listdir('big')==[], n); os.rmdir('big')

for root, dirs, files in os.walk('.', topdown=False):
    for name in files: os.unlink(os.path.join(root, name))
    for name in dirs:
        path = os.path.join(root, name)
        (os.unlink if os.path.islink(path) else os.rmdir)(path)
sys.exit(failed)
