// Who asks: the tokens of the thread and its process.
#pragma once

#include "io.h"

NT_EXTERN_C_BEGIN

// The context holds its tokens until it is released.
NTKERNELAPI VOID NTAPI SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
// Between these two the tokens do not change.
NTKERNELAPI VOID NTAPI SeLockSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
NTKERNELAPI VOID NTAPI SeUnlockSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
NTKERNELAPI VOID NTAPI SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);

NT_EXTERN_C_END
