// The parts of a security descriptor of either form.
#pragma once

#include <ntifs.h>

namespace nthost::rtl {

// Addresses into the descriptor or, of an absolute one, wherever it points. Null for what is absent or null; Control
// tells the two apart for lists.
struct DescriptorParts {
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
};

DescriptorParts PartsOf(PSECURITY_DESCRIPTOR descriptor);

// As the parts of an absolute descriptor.
SECURITY_DESCRIPTOR AbsoluteOf(const DescriptorParts& parts);

} // namespace nthost::rtl
