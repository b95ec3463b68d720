// Start and stop of the I/O manager.
#pragma once

namespace nthost::io {

// After the threads are there.
void Boot();
// Until every file object that a completion left to a system worker has been given back.
void AwaitDroppedFiles();

} // namespace nthost::io
