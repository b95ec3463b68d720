// The table of a volume (operations.h). Holds no state.
#include "operations.h"

#include "volume.h"

namespace posixfs {

PluginOps MakeOperations(Volume* volume)
{
    PluginOps operations = {};
    operations.Version = GVND_PLUGIN_VERSION;
    operations.PluginContext = volume;
    operations.OnUnmounted = [](void* context) NTAPI { Volume::From(context).Unmounted(); };
    operations.Lookup = Lookup;
    operations.Open = Open;
    operations.OpenDir = OpenDir;
    operations.Create = Create;
    operations.CreateDir = CreateDir;
    operations.Read = Read;
    operations.Write = Write;
    operations.ReadDirEntry = ReadDirEntry;
    operations.GetInfo = GetInfo;
    operations.SetFileSize = SetFileSize;
    operations.SetAttr = SetAttr;
    operations.SetTime = SetTime;
    operations.GetVolInfo = GetVolInfo;
    operations.SetVolLabel = SetVolLabel;
    operations.Close = Close;
    operations.Rename = Rename;
    operations.Delete = Delete;
    operations.FlushVol = FlushVol;
    operations.FlushFile = FlushFile;
    operations.ListEa = ListEa;
    operations.GetEa = GetEa;
    operations.SetEa = SetEa;
    operations.DeleteEa = DeleteEa;
    operations.ReadLink = ReadLink;
    return operations;
}

} // namespace posixfs
