// The security context of a caller. A token belongs to its process and never changes while that lives, and a process
// lives while a thread acts for it: so a captured context needs no references, and locking it has nothing to hold off.
// No thread impersonates: there is never a client token.

#include <ntifs.h>

#include "ke/thread.h"

VOID NTAPI SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT subject)
{
    *subject = {};
    subject->PrimaryToken = nthost::ke::CurrentThread()->ActsFor->Token;
}

VOID NTAPI SeLockSubjectContext(PSECURITY_SUBJECT_CONTEXT) {}

VOID NTAPI SeUnlockSubjectContext(PSECURITY_SUBJECT_CONTEXT) {}

VOID NTAPI SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT subject) { *subject = {}; }
