// Random operations on one file of any file system, compared with a shadow in memory: reads, writes, truncations,
// mapped reads and writes, allocation, syncs, and opening again. What differs is reported with the operations that led
// to it.
//   mount_exerciser FILE OPERATIONS [SEED]
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kLargestFile = 300'000;
constexpr size_t kLargestPiece = 70'000;
constexpr size_t kRemembered = 30;

class Exerciser {
public:
    Exerciser(const char* path, uint64_t seed) : path_(path), random_(seed) { Open(O_CREAT | O_TRUNC); }
    ~Exerciser() { close(fd_); }

    void Step()
    {
        static constexpr void (Exerciser::*kSteps[])() = {
            &Exerciser::Read,       &Exerciser::Read,        &Exerciser::Write,    &Exerciser::Write,
            &Exerciser::MappedRead, &Exerciser::MappedWrite, &Exerciser::Truncate, &Exerciser::Append};
        static constexpr void (Exerciser::*kRare[])() = {&Exerciser::Allocate, &Exerciser::Sync, &Exerciser::Reopen,
                                                         &Exerciser::CompareAll};
        ++count_;
        if (Below(20) == 0)
            (this->*kRare[Below(std::size(kRare))])();
        else
            (this->*kSteps[Below(std::size(kSteps))])();
    }

    void CompareAll()
    {
        Note("compare all %zu bytes", shadow_.size());
        struct stat info = {};
        Require(fstat(fd_, &info) == 0, "fstat");
        if (static_cast<size_t>(info.st_size) != shadow_.size()) Differ("the size", 0, "st_size");
        std::vector<char> bytes(shadow_.size());
        ReadInto(bytes, 0);
        Compare(bytes.data(), 0, bytes.size(), "read");
    }

private:
    size_t Below(size_t bound) { return bound ? static_cast<size_t>(random_() % bound) : 0; }

    void Note(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        char text[200];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        history_.push_back(std::to_string(count_) + ": " + text);
        if (history_.size() > kRemembered) history_.pop_front();
    }

    [[noreturn]] void Fail()
    {
        for (const std::string& line : history_) std::fprintf(stderr, "  %s\n", line.c_str());
        std::_Exit(1);
    }
    void Require(bool succeeded, const char* call)
    {
        if (succeeded) return;
        std::fprintf(stderr, "%s: %s, after\n", call, std::strerror(errno));
        Fail();
    }
    [[noreturn]] void Differ(const char* what, size_t offset, const char* how)
    {
        std::fprintf(stderr, "%s differs at %zu by %s, after\n", what, offset, how);
        Fail();
    }

    void Compare(const char* bytes, size_t offset, size_t length, const char* how)
    {
        const char* const expected = shadow_.data() + offset;
        const auto [got, wanted] = std::mismatch(bytes, bytes + length, expected);
        if (got != bytes + length) Differ("a byte", offset + static_cast<size_t>(got - bytes), how);
    }

    void Open(int flags)
    {
        fd_ = open(path_, O_RDWR | flags, 0644);
        Require(fd_ >= 0, "open");
    }

    void ReadInto(std::vector<char>& bytes, size_t offset)
    {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t got = pread(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
            Require(got >= 0, "pread");
            if (got == 0) Differ("the end of the file", offset + done, "read");
            done += static_cast<size_t>(got);
        }
    }

    void WriteAt(size_t offset, size_t length)
    {
        std::vector<char> bytes(length);
        for (char& byte : bytes) byte = static_cast<char>(random_());
        if (shadow_.size() < offset + length) shadow_.resize(offset + length);
        std::copy(bytes.begin(), bytes.end(), shadow_.begin() + static_cast<std::ptrdiff_t>(offset));
        const ssize_t put = pwrite(fd_, bytes.data(), length, static_cast<off_t>(offset));
        Require(put == static_cast<ssize_t>(length), "pwrite");
    }

    void Read()
    {
        const size_t offset = Below(shadow_.size() + 1);
        std::vector<char> bytes(std::min(Below(kLargestPiece), shadow_.size() - offset));
        Note("read %zu at %zu", bytes.size(), offset);
        ReadInto(bytes, offset);
        Compare(bytes.data(), offset, bytes.size(), "read");
    }

    void Write()
    {
        const size_t offset = Below(kLargestFile - kLargestPiece);
        const size_t length = 1 + Below(kLargestPiece);
        Note("write %zu at %zu", length, offset);
        WriteAt(offset, length);
    }

    void Append()
    {
        const size_t length = 1 + Below(5000);
        if (shadow_.size() + length > kLargestFile) return Truncate();
        Note("append %zu at %zu", length, shadow_.size());
        WriteAt(shadow_.size(), length);
    }

    void Truncate()
    {
        const size_t size = Below(kLargestFile);
        Note("truncate %zu to %zu", shadow_.size(), size);
        Require(ftruncate(fd_, static_cast<off_t>(size)) == 0, "ftruncate");
        shadow_.resize(size);
    }

    template <typename Use>
    void Map(int protection, const Use& use)
    {
        if (shadow_.empty()) return;
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t offset = Below(shadow_.size());
        const size_t length = 1 + Below(std::min(kLargestPiece, shadow_.size() - offset));
        const size_t start = offset / page * page;
        Note("%s %zu at %zu", protection & PROT_WRITE ? "mapped write" : "mapped read", length, offset);
        void* const view =
            mmap(nullptr, offset - start + length, protection, MAP_SHARED, fd_, static_cast<off_t>(start));
        Require(view != MAP_FAILED, "mmap");
        use(static_cast<char*>(view) + (offset - start), offset, length);
        Require(munmap(view, offset - start + length) == 0, "munmap");
    }

    void MappedRead()
    {
        Map(PROT_READ,
            [&](const char* bytes, size_t offset, size_t length) { Compare(bytes, offset, length, "view"); });
    }

    void MappedWrite()
    {
        Map(PROT_READ | PROT_WRITE, [&](char* bytes, size_t offset, size_t length) {
            for (size_t i = 0; i < length; ++i) bytes[i] = shadow_[offset + i] = static_cast<char>(random_());
        });
    }

    void Allocate()
    {
        const size_t offset = Below(kLargestFile / 2);
        const size_t length = 1 + Below(kLargestFile / 2);
        const bool keep = Below(2) == 0;
        Note("allocate %zu at %zu%s", length, offset, keep ? ", keeping the size" : "");
        const int result =
            fallocate(fd_, keep ? FALLOC_FL_KEEP_SIZE : 0, static_cast<off_t>(offset), static_cast<off_t>(length));
        if (result != 0 && errno == EOPNOTSUPP) return;
        Require(result == 0, "fallocate");
        if (!keep && shadow_.size() < offset + length) shadow_.resize(offset + length);
    }

    void Sync()
    {
        Note("fsync");
        Require(fsync(fd_) == 0, "fsync");
    }

    // The kernel gives up its pages too, so that the next reads come from the file system.
    void Reopen()
    {
        Note("close and open");
        Require(fsync(fd_) == 0, "fsync");
        (void)posix_fadvise(fd_, 0, 0, POSIX_FADV_DONTNEED);
        Require(close(fd_) == 0, "close");
        Open(0);
    }

    const char* const path_;
    std::mt19937_64 random_;
    int fd_ = -1;
    uint64_t count_ = 0;
    std::vector<char> shadow_;
    std::deque<std::string> history_;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: mount_exerciser FILE OPERATIONS [SEED]\n");
        return 2;
    }
    const uint64_t seed = argc > 3 ? std::strtoull(argv[3], nullptr, 0) : 1;
    const uint64_t operations = std::strtoull(argv[2], nullptr, 0);
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    {
        Exerciser exerciser(argv[1], seed);
        for (uint64_t i = 0; i < operations; ++i) exerciser.Step();
        exerciser.CompareAll();
    }
    return unlink(argv[1]) == 0 ? 0 : 1;
}
