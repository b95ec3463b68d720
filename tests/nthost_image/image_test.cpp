// Kernel images in this process: what a driver's exceptions, threads and prints do, and which files are refused.

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/image.h>
#include <nthost/pool.h>
#include <nthost/routines.h>
#include <nthost/user_memory.h>
#include <workbench/requests.h>

#include "image/pe.h"
#include "image/module.h"
#include "image/unwind_codes.h"
#include "image_driver/exercise.h"
#include "ke/guarded.h"
#include "support/client.h"
#include "support/host.h"

namespace nthost {
namespace {

using support::ExpectFindings;

std::filesystem::path Image()
{
    const char* const driver = std::getenv("GVND_IMAGE");
    return driver ? std::filesystem::path(driver).replace_filename("exerciser.sys") : "build/nt/exerciser.sys";
}

class Images : public support::BootedTest {
protected:
    void SetUp() override
    {
        support::BootedTest::SetUp();
        if (!std::filesystem::exists(Image())) GTEST_SKIP() << Image() << " is not built (preset nt)";
    }
    void TearDown() override
    {
        if (driver_) EXPECT_TRUE(Unload().Clean());
        support::BootedTest::TearDown();
    }
    void Load() { ASSERT_STATUS(STATUS_SUCCESS, LoadImage("exerciser", Image(), &driver_)); }
    LeakReport Unload()
    {
        LeakReport leaks;
        EXPECT_STATUS(STATUS_SUCCESS, UnloadDriver(std::exchange(driver_, nullptr), &leaks));
        return leaks;
    }
    static NTSTATUS Run(Exercise& exercise)
    {
        const support::OpenResult device = support::Open("\\Device\\Exerciser", {.Kernel = true});
        EXPECT_STATUS(STATUS_SUCCESS, device.Status);
        IO_STATUS_BLOCK block{};
        return ZwDeviceIoControlFile(device.File.Get(), nullptr, nullptr, nullptr, &block, IOCTL_EXERCISE, &exercise,
                                     sizeof exercise, nullptr, 0);
    }

    PDRIVER_OBJECT driver_ = nullptr;
};

void NTAPI RaiseFromHost(void* argument) { ExRaiseStatus(*static_cast<NTSTATUS*>(argument)); }

// Deep in code of the other convention, which keeps none of the registers that the image has values in.
[[gnu::noinline]] void Spoil(double* numbers, NTSTATUS status)
{
    for (unsigned i = 0; i < 64; ++i) numbers[i] = numbers[i] * 1.5 + i;
    ExRaiseStatus(status);
}
void NTAPI SpoilFromHost(void* argument)
{
    double numbers[64] = {};
    Spoil(numbers, *static_cast<NTSTATUS*>(argument));
}
void NTAPI TouchFromHost(void* argument) { *static_cast<volatile char*>(argument) = 1; }

struct Row {
    const char* Name;
    ExerciseCase Case;
    void(NTAPI* Call)(void*);
    NTSTATUS Caught;
    ULONG Steps;
};
constexpr Row kRows[] = {
    {"a raise of its own", ExerciseRaise, nullptr, STATUS_DISK_FULL, 2 | 4},
    {"an outer handler, when the inner one does not want it", ExerciseNotMine, nullptr, STATUS_DISK_FULL, 2 | 4 | 16},
    {"a raise of the host's, with a termination handler on the way", ExerciseThroughHost, RaiseFromHost,
     STATUS_DISK_FULL, 2 | 4 | 8},
    {"a raise in a filter goes past that filter", ExerciseInFilter, nullptr, STATUS_ACCESS_DENIED, 2 | 4 | 16},
    {"on a thread of the image", ExerciseThread, nullptr, STATUS_DISK_FULL, 2 | 4},
};

TEST_F(Images, HandleRaises)
{
    Load();
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.Name);
        NTSTATUS status = STATUS_DISK_FULL;
        Exercise exercise{};
        exercise.Case = row.Case;
        exercise.Status = status;
        exercise.Call = row.Call;
        exercise.Argument = &status;
        EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
        EXPECT_STATUS(row.Caught, exercise.Caught);
        EXPECT_EQ(exercise.Steps, row.Steps);
        EXPECT_EQ(exercise.Value, 0u); // the thread's: an aligned stack
    }
}

TEST_F(Images, HandleFaultsOfTheirOwnAndOfTheHost)
{
    Load();
    UserMemory memory(4096);
    memory.Protect(false, false);
    Exercise own{};
    own.Case = ExerciseFault;
    own.Address = memory.Address();
    EXPECT_STATUS(STATUS_SUCCESS, Run(own));
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, own.Caught);
    EXPECT_EQ(own.Steps, 2u | 4u);
    EXPECT_EQ(own.Info[0], 0u); // a read
    EXPECT_EQ(own.Info[1], reinterpret_cast<ULONG64>(memory.Address()));

    Exercise hosts{};
    hosts.Case = ExerciseThroughHost;
    hosts.Call = TouchFromHost;
    hosts.Argument = memory.Address();
    EXPECT_STATUS(STATUS_SUCCESS, Run(hosts));
    EXPECT_STATUS(STATUS_ACCESS_VIOLATION, hosts.Caught);
    EXPECT_EQ(hosts.Steps, 2u | 4u | 8u);
    EXPECT_EQ(hosts.Info[0], 1u); // a write
}

// The filter has the page made readable, and the same instruction runs again.
TEST_F(Images, GoOnWhereAFilterMendedTheCause)
{
    Load();
    UserMemory memory(4096);
    memory.Address()[0] = 77;
    memory.Protect(false, false);
    Exercise exercise{};
    exercise.Case = ExerciseGoOn;
    exercise.Address = memory.Address();
    exercise.Call = [](void* argument) NTAPI { static_cast<UserMemory*>(argument)->Protect(true, true); };
    exercise.Argument = &memory;
    EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
    EXPECT_EQ(exercise.Steps, 1u);
    EXPECT_EQ(exercise.Value, 77u);
}

TEST_F(Images, FindTheirRegistersAgainBehindFramesOfTheHost)
{
    Load();
    double seed[10];
    ULONG64 sum = 0;
    for (unsigned i = 0; i < 10; ++i) seed[i] = 100 + i, sum += 3 * (100 + i) + (i < 8 ? 5 * (100 + i) : 0);
    for (const auto call : {&RaiseFromHost, &SpoilFromHost}) {
        NTSTATUS status = STATUS_DISK_FULL;
        Exercise exercise{};
        exercise.Case = ExerciseRegisters;
        exercise.Address = seed;
        exercise.Call = call;
        exercise.Argument = &status;
        EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
        EXPECT_EQ(exercise.Steps, 4u);
        EXPECT_EQ(exercise.Value, sum);
    }
}

TEST_F(Images, LetARaiseThroughToAGuardOfTheHost)
{
    Load();
    Exercise exercise{};
    exercise.Case = ExerciseUnguarded;
    exercise.Status = STATUS_DISK_FULL;
    const support::OpenResult device = support::Open("\\Device\\Exerciser", {.Kernel = true});
    PVOID object = nullptr;
    ASSERT_STATUS(STATUS_SUCCESS,
                  ObReferenceObjectByHandle(device.File.Get(), 0, IoFileObjectType, KernelMode, &object, nullptr));
    const auto file = static_cast<PFILE_OBJECT>(object);
    PIRP const irp = IoAllocateIrp(file->DeviceObject->StackSize, FALSE);
    IO_STACK_LOCATION* const location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    location->Parameters.DeviceIoControl.Type3InputBuffer = &exercise;
    IoSetNextIrpStackLocation(irp);
    location->DeviceObject = file->DeviceObject;
    const NTSTATUS status = ke::Guarded(
        [&] { (void)file->DeviceObject->DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL](file->DeviceObject, irp); });
    EXPECT_STATUS(STATUS_DISK_FULL, status);
    IoFreeIrp(irp);
    ObDereferenceObject(file);
}

TEST_F(Images, ReadTheIrqlInPlace)
{
    Load();
    Exercise exercise{};
    exercise.Case = ExerciseIrql;
    EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
    EXPECT_EQ(exercise.Info[0], ULONG64{PASSIVE_LEVEL});
    EXPECT_EQ(exercise.Info[1], ULONG64{DISPATCH_LEVEL});
    EXPECT_EQ(exercise.Value, ULONG64{APC_LEVEL});
}

TEST_F(Images, PrintWithTheirArguments)
{
    std::string text;
    SetDebugSink([&](std::string_view part) { text += part; });
    Load();
    Exercise exercise{};
    exercise.Case = ExercisePrint;
    exercise.Address = reinterpret_cast<void*>(0xabcu);
    EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
    SetDebugSink({});
    EXPECT_EQ(text, "-1 123456789abcdef text name 8 0000000000000ABC\n");
}

TEST_F(Images, AreNamedInTheReportOfWhatTheyLeave)
{
    Load();
    Exercise exercise{};
    exercise.Case = ExerciseLeak;
    EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
    const LeakReport leaks = Unload();
    ASSERT_EQ(leaks.Lines.size(), 1u);
#if NTHOST_CHECKS
    EXPECT_NE(leaks.Lines[0].find("exerciser.sys!ExerciserLeak+0x"), std::string::npos) << leaks.Lines[0];
    EXPECT_NE(leaks.Lines[0].find("CallDriver"), std::string::npos) << leaks.Lines[0]; // and what called it
#endif
    ExFreePoolWithTag(exercise.Address, 0);
}

#if NTHOST_CHECKS
TEST_F(Images, HaveTheirStackMeasured)
{
    Load();
    Exercise exercise{};
    exercise.Case = ExerciseDeepStack;
    exercise.Address = reinterpret_cast<void*>(9000u);
    EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
    const StackUse use = DeepestImageStack();
    EXPECT_GT(use.Bytes, 9000u);
    EXPECT_NE(use.Stack.find("exerciser.sys!"), std::string::npos) << use.Stack;
    ExpectFindings({});

    const QuietFindings quiet;
    exercise.Address = reinterpret_cast<void*>(12000u);
    EXPECT_STATUS(STATUS_SUCCESS, Run(exercise));
    ExpectFindings({"image-stack-deep"});
}
#endif

TEST_F(Images, ComeAgainWhereTheyWere)
{
    Load();
    void* const start = driver_->DriverStart;
    EXPECT_TRUE(Unload().Clean());
    Load();
    EXPECT_EQ(driver_->DriverStart, start);
}

TEST_F(Images, NameWhatIsMissing)
{
    const QuietFindings quiet;
    const HiddenRoutine hidden("PsTerminateSystemThread");
    EXPECT_STATUS(STATUS_DRIVER_ENTRYPOINT_NOT_FOUND, LoadImage("exerciser", Image(), &driver_));
    const std::vector<Finding> findings = TakeFindings();
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].Rule, "image-import-missing");
    EXPECT_NE(findings[0].Detail.find("ntoskrnl.exe!PsTerminateSystemThread"), std::string::npos) << findings[0].Detail;
}

// A file with one byte, or its length, changed.
struct Damage {
    const char* Name;
    size_t At; // behind the PE signature's offset, unless the file is cut
    uint8_t Value;
    size_t Length; // 0: whole
};
constexpr Damage kDamages[] = {
    {"no signature", 0, 'X', 0},
    {"another machine", 4, 0x4c, 0},
    {"not for the kernel", 24 + 68, 2, 0},
    {"without relocations", 22, 0x23, 0},
    {"an entry in no code", 24 + 18, 0x40, 0},
    {"an import directory outside", 24 + 112 + 8 + 3, 0x7f, 0},
    {"cut in its headers", 0, 0, 300},
    {"cut in its sections", 0, 0, 3000},
    {"empty", 0, 0, 1},
};

std::string WholeImage()
{
    std::ifstream file(Image(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::filesystem::path DamagedCopy()
{
    return std::filesystem::path(testing::TempDir()) / ("damaged" + std::to_string(getpid()) + ".sys");
}

TEST_F(Images, AreRefusedWhenDamaged)
{
    const QuietFindings quiet;
    const std::string whole = WholeImage();
    uint32_t header;
    memcpy(&header, &whole[0x3c], sizeof header);
    const std::filesystem::path copy = DamagedCopy();
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.Name);
        std::string bytes = whole.substr(0, damage.Length ? damage.Length : whole.npos);
        if (!damage.Length) bytes[header + damage.At] = static_cast<char>(damage.Value);
        std::ofstream(copy, std::ios::binary) << bytes;
        EXPECT_STATUS(STATUS_INVALID_IMAGE_FORMAT, LoadImage("exerciser", copy, &driver_));
        ExpectFindings({"image-unusable"});
    }
    std::filesystem::remove(copy);
    EXPECT_STATUS(STATUS_INVALID_IMAGE_FORMAT, LoadImage("exerciser", copy, &driver_));
    ExpectFindings({"image-unusable"});
}

// Where the file has an address of the image.
size_t FileOffset(const image::PeFile& file, uint32_t address)
{
    for (const image::Section& section : file.Sections)
        if (address - section.Address < section.VirtualSize) return section.FileOffset + address - section.Address;
    return 0;
}

// Of the first function, whose unwind data are believed later, when a stack is walked.
struct UnwindDamage {
    const char* Name;
    void (*Make)(image::RuntimeFunction* function, image::UnwindInfo* info, uint32_t* tail);
};
const UnwindDamage kUnwindDamages[] = {
    {"not aligned", [](auto* function, auto*, auto*) { ++function->Unwind; }},
    {"a handler outside",
     [](auto*, auto* info, auto* tail) {
         info->VersionAndFlags = 1 | image::HandlesExceptions << 3;
         *tail = 0x7ffffff0;
     }},
    {"continues itself",
     [](auto* function, auto* info, auto* tail) {
         info->VersionAndFlags = 1 | image::Continues << 3;
         memcpy(tail, function, sizeof *function);
     }},
};

TEST_F(Images, AreRefusedWhenStacksCouldNotBeWalked)
{
    const QuietFindings quiet;
    std::string reason;
    const auto file = image::ReadPeFile(Image(), &reason);
    ASSERT_TRUE(file) << reason;
    const std::filesystem::path copy = DamagedCopy();
    for (const UnwindDamage& damage : kUnwindDamages) {
        SCOPED_TRACE(damage.Name);
        std::string bytes = WholeImage();
        auto* const function =
            reinterpret_cast<image::RuntimeFunction*>(&bytes[FileOffset(*file, file->Exceptions.Address)]);
        auto* const info = reinterpret_cast<image::UnwindInfo*>(&bytes[FileOffset(*file, function->Unwind)]);
        damage.Make(function, info, const_cast<uint32_t*>(info->Tail()));
        std::ofstream(copy, std::ios::binary) << bytes;
        EXPECT_STATUS(STATUS_INVALID_IMAGE_FORMAT, LoadImage("exerciser", copy, &driver_));
        ExpectFindings({"image-unusable"});
        if (driver_) (void)Unload();
    }
    std::filesystem::remove(copy);
}

} // namespace
} // namespace nthost
