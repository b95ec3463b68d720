// One step of a generated sequence on names, as plain data: whoever carries it out, the driver or the model, reads the
// same record, so that steps can be dropped from a sequence and the rest still means something. Slots hold handles; a
// step on a slot that turns out empty, or an open into one that is taken, is passed over.
#pragma once

#include <string>
#include <vector>

#include <gvnd/plugin.h>

namespace model {

constexpr unsigned kSlots = 8;
constexpr int kNoRoot = -1;

enum class Verb {
    Open,
    Close,
    SetDisposition,
    Rename,
    SetAttributes,
    SetEndOfFile,
    QueryStandard,
    QueryName,
    QueryAttributes,
    List,
    Touch, // maps the file, reads a byte and lets go: the section keeps the file open past its last handle
    Flush,
    Trim, // what nobody maps any more goes
};

struct Operation {
    model::Verb Verb;
    unsigned Slot;
    int Root = kNoRoot; // the slot that Path is relative to
    std::string Path;   // of an open or a rename; from the volume's root, relative, or for a rename simple
    ACCESS_MASK Access = 0;
    ULONG Share = 0;
    ULONG Disposition = 0;
    ULONG Options = 0;
    ULONG Attributes = 0;
    bool Flag = false; // delete, or replace
    LONGLONG Size = 0;
};

// What a step gave: all of it is compared.
struct Outcome {
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG_PTR Information = 0; // after success
    std::string Text;          // what was asked for: sizes, a name, a listing

    bool operator==(const Outcome&) const = default;
};

// One line each, for a person.
std::string Describe(const Operation& operation);
std::string Describe(const Outcome& outcome);

using Sequence = std::vector<Operation>;

} // namespace model
