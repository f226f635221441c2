#include "Pavo/pam/CaptureFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <utility>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/socket/ServiceThread.h"

namespace Pavo {

namespace {

using Blocks = std::string;  // Of bytes.

constexpr uint32_t sectionHeaderBlock = 0x0a0d0d0a;
constexpr uint32_t interfaceBlock = 1;
constexpr uint32_t packetBlock = 6;
constexpr uint32_t byteOrderMagic = 0x1a2b3c4d;
constexpr uint32_t endOfOptions = 0;
constexpr uint32_t interfaceNameOption = 2;
constexpr uint32_t timeResolutionOption = 9;
constexpr uint32_t packetFlagsOption = 2;
constexpr std::string_view nanoseconds = "\x09";  // Powers of a tenth of a second.
constexpr std::size_t maxNameBytes = 255;         // An option's length has 16 bits.

// A packet block without the packet: its head, and the option and the length after the packet.
constexpr uint32_t packetOverhead = 11 * sizeof(uint32_t);

// The writer waits this long for more packets to write together.
constexpr std::chrono::milliseconds gatheringTime{20};

template <class... Number>
void addWords(Blocks* to, Number... number) {
    const uint32_t words[] = {number...};
    to->append(reinterpret_cast<const char*>(words), sizeof(words));
}

constexpr uint32_t padding(uint32_t bytes) {
    return (0u - bytes) % sizeof(uint32_t);
}

void addPadding(Blocks* to, uint32_t bytes) {
    to->append(padding(bytes), '\0');
}

// An option begins with two numbers of 16 bits, in the writer's byte order like all numbers.
void addOptionHead(Blocks* to, uint32_t code, uint32_t bytes) {
    const uint16_t head[] = {static_cast<uint16_t>(code), static_cast<uint16_t>(bytes)};
    to->append(reinterpret_cast<const char*>(head), sizeof(head));
}

void addOption(Blocks* to, uint32_t code, std::string_view value) {
    const auto bytes = static_cast<uint32_t>(value.size());
    addOptionHead(to, code, bytes);
    to->append(value);
    addPadding(to, bytes);
}

// A block is its type, its length, its body and its length again.
Blocks blockOf(uint32_t type, const Blocks& body) {
    const auto length = static_cast<uint32_t>(body.size() + 3 * sizeof(uint32_t));
    Blocks block;
    addWords(&block, type, length);
    block += body;
    addWords(&block, length);
    return block;
}

Blocks sectionHeader() {
    Blocks body;
    addWords(&body, byteOrderMagic);
    addOptionHead(&body, 1, 0);  // Version 1.0.
    addWords(&body, ~0u, ~0u);   // The length of the section is not known yet.
    return blockOf(sectionHeaderBlock, body);
}

Blocks interfaceDescription(const Mox::String& name, CaptureLinkType linkType) {
    Blocks body;
    addOptionHead(&body, static_cast<uint32_t>(linkType), 0);
    addWords(&body, CaptureFile::maxPktBytes);
    addOption(&body, interfaceNameOption, name.view().substr(0, maxNameBytes));
    addOption(&body, timeResolutionOption, nanoseconds);
    addWords(&body, endOfOptions);
    return blockOf(interfaceBlock, body);
}

uint64_t nanosecondsNow() {
    timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

[[noreturn]] void throwErrno(int error, std::string_view call, const Mox::String& path) {
    throw Mox::ErrnoException(error, Mox::String(call) + "(" + path.view() + ")");
}

// Empties an existing file only when it cannot be another user's, or known by another name, so that
// nobody can direct a privileged agent's packets elsewhere by creating the file first. A device
// such as /dev/null is left as it is.
int makePrivate(int fd) {
    struct stat file;
    if (fstat(fd, &file) < 0) {
        return errno;
    }
    if (!S_ISREG(file.st_mode)) {
        return 0;
    }
    if (file.st_uid != geteuid() || file.st_nlink != 1) {
        return EPERM;
    }
    return fchmod(fd, 0600) < 0 || ftruncate(fd, 0) < 0 ? errno : 0;
}

}  // namespace

CaptureFile::CaptureFile(const Mox::String& path, Limits limits) : path_(path), limits_(limits) {
    queue_.reserve(limits.queueBytes);
    blocks_.reserve(limits.queueBytes);
    fd_.number = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (const int error = fd_.number < 0 ? errno : makePrivate(fd_.number)) {
        throwErrno(error, "open", path);
    }
    if (const int error = append(sectionHeader())) {
        throwErrno(error, "write", path);
    }
    takenBytes_ = fileBytes_;
    if (const int error = startServiceThread(&thread_, "captureFile", runWriter, this)) {
        throw Mox::ErrnoException(error, "pthread_create");
    }
}

CaptureFile::~CaptureFile() {
    {
        const std::lock_guard lock(queueMutex_);
        isEnding_ = true;
    }
    queued_.notify_one();
    (void)pthread_join(thread_, nullptr);
}

CaptureFile::Descriptor::~Descriptor() {
    if (number >= 0) {
        const Mox::ErrnoKeeper keeper;
        (void)close(number);
    }
}

uint32_t CaptureFile::newInterface(const Mox::String& name, CaptureLinkType linkType) {
    const Blocks block = interfaceDescription(name, linkType);
    {
        const std::lock_guard lock(fileMutex_);
        if (const int error = append(block)) {
            throwErrno(error, "write", path_);
        }
    }
    const std::lock_guard lock(queueMutex_);
    takenBytes_ += block.size();
    return interfaces_++;
}

void CaptureFile::pktIs(uint32_t interface, CaptureDirection direction, const Piece* pieces,
                        uint32_t pieceCount) {
    uint32_t pktBytes = 0;
    for (uint32_t i = 0; i < pieceCount; ++i) {
        pktBytes += pieces[i].bytes;
    }
    const uint32_t bytes = std::min(pktBytes, maxPktBytes);
    const uint32_t length = packetOverhead + bytes + padding(bytes);
    const uint64_t time = nanosecondsNow();

    std::unique_lock lock(queueMutex_);
    if (isFull(length)) {
        ++stats_.drops;
        return;
    }
    const bool wasEmpty = queue_.empty();
    const bool wasHalfFull = isHalfFull();
    addWords(&queue_, packetBlock, length, interface, static_cast<uint32_t>(time >> 32),
             static_cast<uint32_t>(time), bytes, pktBytes);
    for (uint32_t left = bytes; left != 0; ++pieces) {
        const uint32_t kept = std::min(left, pieces->bytes);
        queue_.append(reinterpret_cast<const char*>(pieces->data), kept);
        left -= kept;
    }
    addPadding(&queue_, bytes);
    addOptionHead(&queue_, packetFlagsOption, sizeof(direction));
    addWords(&queue_, static_cast<uint32_t>(direction), endOfOptions, length);
    ++queuedPackets_;
    takenBytes_ += length;
    ++stats_.packets;
    const bool wakesWriter = wasEmpty || (!wasHalfFull && isHalfFull());
    lock.unlock();
    if (wakesWriter) {
        queued_.notify_one();
    }
}

bool CaptureFile::isFull(uint64_t bytes) const {
    return queue_.size() + bytes > limits_.queueBytes || takenBytes_ + bytes > limits_.fileBytes;
}

void CaptureFile::flush() {
    std::unique_lock lock(queueMutex_);
    isFlushing_ = true;
    queued_.notify_one();
    idle_.wait(lock, [this] { return queue_.empty() && !isWriting_; });
    isFlushing_ = false;
}

CaptureFile::Stats CaptureFile::stats() const {
    const std::lock_guard lock(queueMutex_);
    return stats_;
}

void CaptureFile::runWriter(void* self) {
    static_cast<CaptureFile*>(self)->writer();
}

void CaptureFile::writer() {
    std::unique_lock lock(queueMutex_);
    for (;;) {
        queued_.wait(lock, [this] { return !queue_.empty() || isEnding_; });
        if (queue_.empty()) {
            return;
        }
        queued_.wait_for(lock, gatheringTime,
                         [this] { return isHalfFull() || isFlushing_ || isEnding_; });
        blocks_.swap(queue_);
        const uint64_t packets = std::exchange(queuedPackets_, 0);
        isWriting_ = true;
        lock.unlock();

        int error;
        {
            const std::lock_guard fileLock(fileMutex_);
            error = append(blocks_);
        }

        lock.lock();
        if (error != 0) {
            ++stats_.writeErrors;
            stats_.writeErrno = error;
            stats_.lost += packets;
            takenBytes_ -= blocks_.size();
        }
        blocks_.clear();
        isWriting_ = false;
        idle_.notify_all();
    }
}

// All of the blocks or none. Returns 0 or an `errno`.
int CaptureFile::append(const Blocks& blocks) {
    if (isTorn_ && ftruncate(fd_.number, static_cast<off_t>(fileBytes_)) != 0) {
        return errno;
    }
    isTorn_ = false;
    std::size_t written = 0;
    while (written < blocks.size()) {
        const ssize_t result = pwrite(fd_.number, blocks.data() + written, blocks.size() - written,
                                      static_cast<off_t>(fileBytes_ + written));
        if (result > 0) {
            written += static_cast<std::size_t>(result);
        } else if (result == 0 || errno != EINTR) {
            const int error = result == 0 ? EIO : errno;
            isTorn_ = written != 0 && ftruncate(fd_.number, static_cast<off_t>(fileBytes_)) != 0;
            return error;
        }
    }
    fileBytes_ += written;
    return 0;
}

Mox::Ptr<CaptureFile> captureFileFactory(const Mox::String& path, CaptureFile::Limits limits) {
    return Mox::make<CaptureFile>(path, limits);
}

}  // namespace Pavo
