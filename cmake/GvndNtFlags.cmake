# How kernel images are compiled and linked, for this project's own and, installed, for those of plugins.

# -fasynchronous-unwind-tables: -ffreestanding turns the tables off, and a function that has no entry in .pdata unwinds
# as a leaf, so an exception would miss its guard. -fno-jump-tables: they would stand between the functions, where
# nothing tells them from code. The kernel's stack is small, hence the limit per frame. Two intrinsics would be defined
# twice by the header set, hence the defines.
set(GVND_NT_COMPILE_FLAGS
    -Wframe-larger-than=1024 -O2 -g -gcodeview
    -ffreestanding -fasynchronous-unwind-tables -fms-extensions -mno-red-zone -fno-stack-protector
    -fno-strict-aliasing -fno-jump-tables -fno-ident -fno-color-diagnostics -Wno-pragma-pack
    -D__INTRINSIC_DEFINED_InterlockedBitTestAndSet -D__INTRINSIC_DEFINED_InterlockedBitTestAndReset)
set(GVND_NT_CXX_FLAGS -fno-exceptions -fno-rtti -fno-threadsafe-statics)

# /lldmingw: the compiler ties the unwind data of an inline function to it by the section's name only, and the linker
# reads that in this mode alone; without it those functions would lose their entries in .pdata. Data of the kernel must
# be imported as such, since nothing at run time would mend it: hence /auto-import:no.
# The PDB is named without a directory in the image, and paths inside of it start at a fixed root.
set(GVND_NT_LINK_FLAGS
    /nologo /driver /subsystem:native /entry:DriverEntry /nodefaultlib /lldmingw /auto-import:no
    /runtime-pseudo-reloc:no /dynamicbase /highentropyva /nxcompat /Brepro /debug /pdbaltpath:%_PDB%
    /pdbsourcepath:C:\\gvnd)
