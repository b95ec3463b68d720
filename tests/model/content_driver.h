// The other side of the content model: the steps as requests on the mounted volume's one file, through handles of each
// kind, and as touches of views.
#pragma once

#include <array>

#include "content_operation.h"
#include "support/client.h"

namespace model {

class ContentDriver {
public:
    // Makes the file if it is not there, and empties it.
    void Open();
    void Close();
    ContentOutcome Apply(const ContentOperation& operation);
    // All of it, read in one request.
    ContentOutcome Contents();

private:
    struct View {
        support::Handle Section;
        char* Base = nullptr;
    };

    HANDLE HandleFor(const ContentOperation& operation) const;
    ContentOutcome Read(const ContentOperation& read);
    ContentOutcome Write(const ContentOperation& write, const char* data);
    ContentOutcome Overwrite();
    ContentOutcome Set(FILE_INFORMATION_CLASS infoClass, LONGLONG value);
    ContentOutcome QueryEnd();
    ContentOutcome QueryPosition();
    ContentOutcome Map(View* view);
    ContentOutcome Unmap(View* view);
    ContentOutcome ReadView(const ContentOperation& read);
    ContentOutcome WriteView(const ContentOperation& write);
    ContentOutcome WriteBack();
    ContentOutcome FlushView(const ContentOperation& flush);

    support::Handle synchronous_, asynchronous_, appending_;
    std::array<View, kViews> views_;
};

} // namespace model
