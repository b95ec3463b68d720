// The other side: the same steps carried out on the running driver through the system services, by an ordinary
// program's thread.
#pragma once

#include <array>

#include "operation.h"
#include "support/client.h"

namespace model {

class NamespaceDriver {
public:
    Outcome Apply(const Operation& operation);
    void CloseAll();

private:
    Outcome Open(const Operation& operation);
    Outcome Rename(const Operation& operation);
    Outcome Set(const Operation& operation, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length);
    Outcome Query(const Operation& operation);
    Outcome List(const Operation& operation);
    Outcome Touch(const Operation& operation);

    std::array<support::Handle, kSlots> slots_;
};

} // namespace model
