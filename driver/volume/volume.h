// The life of a volume: mount, the drain rules, unmount. A volume exists because a plugin asked for it; an unmount is
// never forced: the request only shuts the door, and the volume goes when the last open file and the last running call
// are gone.
#pragma once

#include "frame/records.h"

// Constant; fetched by plugins with IOCTL_GVND_GET_SERVICE_TABLE.
extern const GvServices GvServiceTable;

// The two services of the table; include/gvnd/plugin.h says what they take.
NTSTATUS NTAPI GvMount(PUNICODE_STRING backingPath, PUNICODE_STRING deviceName, PUNICODE_STRING linkName,
                       PUNICODE_STRING securityString, const PluginOps* operations, PDEVICE_OBJECT* device);
NTSTATUS NTAPI GvUnmountRequest(PDEVICE_OBJECT device);

// Never blocks. Starts the final unmount if an unmount was requested and nothing holds the volume any more; else
// STATUS_ACCESS_DENIED. Follows every unpin.
NTSTATUS GvUnmountIfDrained(PDEVICE_OBJECT device);
