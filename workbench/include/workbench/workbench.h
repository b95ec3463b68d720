// All of the workbench: boot, driver, plugin, and what an NT program does with the volume, in one process.
//
//     workbench::Host host;
//     workbench::Require("load the driver", host.LoadGvnd());
//     {
//         workbench::Volume volume(host, MyPluginTable());
//         volume.Open("/hello.txt").Read(0, buffer, sizeof buffer);
//     }
//     const workbench::Report report = host.Finish();
//     report.Print();
//     return report.ExitCode();
//
// For programs in C there is workbench_c.h.
#pragma once

#include "workbench/ea.h"
#include "workbench/file.h"
#include "workbench/host.h"
#include "workbench/plugin_table.h"
#include "workbench/requests.h"
#include "workbench/trace.h"
#include "workbench/user.h"
#include "workbench/view.h"
#include "workbench/volume.h"
