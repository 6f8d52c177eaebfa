// The worker channel's frame reader (server/frame.h), fed what a worker that was taken over could send, then
// end of file. Checked: a frame that reads is written back and read again to the same value, and its compact
// text parses to that value.
#include "frame.h"
#include "fuzz-check.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

using kova_fuzz::Check;

// One in-memory file stands in for the channel: no pipe buffer to fill, no reader thread, and the reader sees
// end of file after the input.
int Channel() {
    static int fd = memfd_create("frame", 0);
    Check(fd >= 0, "memfd_create");
    return fd;
}

void Load(const void *data, size_t size) {
    int fd = Channel();
    Check(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size) && lseek(fd, 0, SEEK_SET) == 0,
          "cannot fill the channel");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The reader sizes its buffer from the length prefix before it reads (up to kMaxFrameBytes); a prefix far
    // beyond the input only costs the fuzzer that allocation per run and ends like a short one, at EOF.
    if (size >= 4) {
        uint32_t n = (uint32_t(data[0]) << 24) | (uint32_t(data[1]) << 16) | (uint32_t(data[2]) << 8) | data[3];
        if (n > size - 4 + 4096 && n <= webd::kMaxFrameBytes) return 0;
    }
    Load(data, size);
    Json::Value message;
    bool timedOut = true;
    // Alternate the waiting and the blocking read; both end the same way.
    bool ok = webd::ReadFrame(Channel(), message, size % 2 ? 0 : -1, &timedOut);
    Check(!timedOut, "a readable channel timed out");
    if (!ok) return 0;

    std::string text = webd::ToJsonText(message);
    Json::Value reparsed;
    Check(webd::ParseJsonText(text, reparsed), "compact text of a frame does not parse");
    Check(reparsed == message, "compact text of a frame reads as another value");

    Check(ftruncate(Channel(), 0) == 0 && lseek(Channel(), 0, SEEK_SET) == 0, "cannot clear the channel");
    Check(webd::WriteFrame(Channel(), message), "a frame that was read cannot be written");
    Check(lseek(Channel(), 0, SEEK_SET) == 0, "cannot rewind the channel");
    Json::Value again;
    Check(webd::ReadFrame(Channel(), again) && again == message, "a written frame reads back as another value");
    return 0;
}
