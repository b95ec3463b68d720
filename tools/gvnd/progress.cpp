// Printing of the progress line.
#include "gvnd/progress.h"

#include <utility>

#include <fmt/format.h>
#include <unistd.h>

namespace tool {

ProgressLine::ProgressLine(bool wanted, std::string verb, uint64_t totalBytes)
    : wanted_(wanted && isatty(STDERR_FILENO)), verb_(std::move(verb)), totalBytes_(totalBytes)
{}

ProgressLine::~ProgressLine()
{
    if (printed_) fmt::print(stderr, "\r\x1b[K");
}

void ProgressLine::Update(uint64_t objects, uint64_t bytes)
{
    const auto now = Clock::now();
    if (!wanted_ || now - last_ < std::chrono::milliseconds(200)) return;
    last_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = static_cast<double>(bytes) / (seconds > 0 ? seconds : 1);
    std::string rest;
    if (totalBytes_ > bytes && rate > 0) {
        rest = fmt::format(", {:.0f} s left", static_cast<double>(totalBytes_ - bytes) / rate);
    }
    fmt::print(stderr, "\r\x1b[K{} {} objects, {:.1f} MB, {:.1f} MB/s{}", verb_, objects,
               static_cast<double>(bytes) / 1e6, rate / 1e6, rest);
    printed_ = true;
}

} // namespace tool
