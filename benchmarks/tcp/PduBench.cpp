// Messages with a 20-byte header read off a loopback TCP stream: exact reads, beside a bare epoll
// loop that makes the same system calls and beside Boost.Asio; and with 64 KiB of read-ahead,
// beside both with such a buffer and beside libevent's. Every reader hands each message on as an
// object of its own. A burst is written at once, the same for all, and then read; the reading alone
// is timed.

#include <benchmark/benchmark.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "Mox/EventLoop.h"
#include "Pavo/FramedTcpPduPam.h"
#include "Pavo/TcpPduPam.h"
#include "ThreadTime.h"

namespace {

constexpr uint32_t headerBytes = 20;
constexpr uint32_t readAhead = 65536;

void check(bool ok, const char* what) {
    if (!ok) {
        std::perror(what);
        std::exit(1);
    }
}

// A stream to this process: what is written comes out at `receiver`, which the reader closes.
class Wire {
  public:
    Wire() {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(name);
        auto* address = reinterpret_cast<sockaddr*>(&name);
        const int listener = newSocket();
        check(bind(listener, address, length) == 0 && listen(listener, 1) == 0 &&
                  getsockname(listener, address, &length) == 0,
              "listen");
        sender_ = newSocket();
        check(connect(sender_, address, length) == 0, "connect");
        receiver = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        check(receiver >= 0, "accept4");
        close(listener);
    }
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;
    ~Wire() { close(sender_); }

    void write(const std::string& bytes) const {
        check(send(sender_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
              "send");
    }

    int receiver = -1;

  private:
    // With room for a burst, which is not read while it is written.
    static int newSocket() {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
            const int bytes = 1 << 20;
            check(setsockopt(fd, SOL_SOCKET, option, &bytes, sizeof(bytes)) == 0, "setsockopt");
        }
        return fd;
    }

    int sender_ = -1;
};

// A message that its reader hands on: the agent's own memory.
struct Message {
    Message() = default;
    explicit Message(uint32_t itsBytes)
        : data(std::make_unique_for_overwrite<uint8_t[]>(itsBytes)), bytes(itsBytes) {}
    std::unique_ptr<uint8_t[]> data;
    uint32_t bytes = 0;
};

// What the agent does with a message, the same for all.
template <class Handed>
void use(const uint8_t* data, const Handed& handed) {
    benchmark::DoNotOptimize(handed);
    benchmark::DoNotOptimize(*data);
}

uint32_t lengthOf(const uint8_t* header) {
    return static_cast<uint32_t>(header[2] << 8 | header[3]);
}

constexpr Pavo::TcpFraming framing{.headerBytes = headerBytes, .lengthAt = 2};

template <class Pam>
Mox::Ptr<Pam> pamOn(int fd, bool edge) {
    const auto stream = Pavo::tcpFileDescriptorFactory(fd, edge);
    const auto factory = Pavo::tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    if constexpr (std::is_same_v<Pam, Pavo::SimpleTcpPduPam>) {
        return Pavo::simpleTcpPduPamFactory(stream, factory);
    } else {
        return Pavo::framedTcpPduPamFactory(stream, factory, framing);
    }
}

template <class Pam, uint32_t readAheadBytes, bool edge>
class PavoReader {
  public:
    explicit PavoReader(int fd)
        : pam_(pamOn<Pam>(fd, edge)), watch_(pam_, Pavo::Pam::readableCountAttr, [this] {
              while (const auto pkt = pam_->rxPkt()) {
                  use(pkt->frontData(), pkt);
                  ++received_;
              }
          }) {
        pam_->readAheadBytesIs(readAheadBytes);
        pam_->enabledIs(true);
    }
    int read() {
        received_ = 0;
        loop_.turn();
        return received_;
    }

  private:
    Mox::EventLoop loop_;
    Mox::Ptr<Pam> pam_;
    int received_ = 0;
    Mox::Watch<Pam> watch_;
};

class EpollReader {
  public:
    explicit EpollReader(int fd) : fd_(fd), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        check(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    }
    ~EpollReader() {
        close(epoll_);
        close(fd_);
    }

  protected:
    void wait() const {
        epoll_event event{};
        check(epoll_wait(epoll_, &event, 1, -1) == 1, "epoll_wait");
    }
    // Returns 0 where nothing is there.
    uint32_t receive(uint8_t* to, uint32_t bytes) const {
        const ssize_t got = recv(fd_, to, bytes, MSG_DONTWAIT);
        return got > 0 ? static_cast<uint32_t>(got) : 0;
    }

  private:
    int fd_;
    int epoll_;
};

class ExactEpollReader : EpollReader {
  public:
    using EpollReader::EpollReader;
    int read() {
        wait();
        int received = 0;
        while (readPart()) {
            if (held_ == headerBytes && !message_.data) {
                message_ = Message(lengthOf(header_));
                std::memcpy(message_.data.get(), header_, headerBytes);
            }
            if (held_ == message_.bytes) {
                use(message_.data.get(), message_);
                message_ = {};
                held_ = 0;
                ++received;
            }
        }
        return received;
    }

  private:
    bool readPart() {
        uint8_t* const to = message_.data ? message_.data.get() : header_;
        const uint32_t wanted = message_.data ? message_.bytes : headerBytes;
        const uint32_t got = receive(to + held_, wanted - held_);
        held_ += got;
        return got != 0;
    }

    uint32_t held_ = 0;
    uint8_t header_[headerBytes];
    Message message_;
};

// The buffer of those who read ahead by hand.
class Buffer {
  public:
    uint8_t* room() { return data_ + held_; }
    uint32_t roomBytes() const { return static_cast<uint32_t>(sizeof(data_)) - held_; }
    // Hands on all whole messages, and returns how many.
    int add(uint32_t bytes) {
        held_ += bytes;
        int received = 0;
        uint32_t begin = 0;
        for (uint32_t length = 0; held_ - begin >= headerBytes; begin += length) {
            length = lengthOf(data_ + begin);
            if (length > held_ - begin) {
                break;
            }
            const Message message(length);
            std::memcpy(message.data.get(), data_ + begin, length);
            use(message.data.get(), message);
            ++received;
        }
        held_ -= begin;
        std::memmove(data_, data_ + begin, held_);
        return received;
    }

  private:
    uint32_t held_ = 0;
    uint8_t data_[readAhead];
};

class BufferedEpollReader : EpollReader {
  public:
    using EpollReader::EpollReader;
    int read() {
        wait();
        int received = 0;
        while (const uint32_t got = receive(buffer_.room(), buffer_.roomBytes())) {
            received += buffer_.add(got);
        }
        return received;
    }

  private:
    Buffer buffer_;
};

class AsioReader {
  public:
    explicit AsioReader(int fd) : socket_(context_, boost::asio::ip::tcp::v4(), fd) {}
    int read() {
        received_ = 0;
        context_.run_one();
        context_.poll();
        return received_;
    }

  protected:
    boost::asio::io_context context_{1};
    boost::asio::ip::tcp::socket socket_;
    int received_ = 0;
};

class ExactAsioReader : public AsioReader {
  public:
    explicit ExactAsioReader(int fd) : AsioReader(fd) { readHeader(); }

  private:
    void readHeader() {
        boost::asio::async_read(socket_, boost::asio::buffer(header_, headerBytes),
                                [this](boost::system::error_code error, std::size_t) {
                                    if (!error) {
                                        readBody();
                                    }
                                });
    }
    void readBody() {
        message_ = Message(lengthOf(header_));
        std::memcpy(message_.data.get(), header_, headerBytes);
        if (message_.bytes == headerBytes) {
            take();
            return;
        }
        boost::asio::async_read(
            socket_,
            boost::asio::buffer(message_.data.get() + headerBytes, message_.bytes - headerBytes),
            [this](boost::system::error_code error, std::size_t) {
                if (!error) {
                    take();
                }
            });
    }
    void take() {
        use(message_.data.get(), message_);
        message_ = {};
        ++received_;
        readHeader();
    }

    uint8_t header_[headerBytes];
    Message message_;
};

class BufferedAsioReader : public AsioReader {
  public:
    explicit BufferedAsioReader(int fd) : AsioReader(fd) { readSome(); }

  private:
    void readSome() {
        socket_.async_read_some(boost::asio::buffer(buffer_.room(), buffer_.roomBytes()),
                                [this](boost::system::error_code error, std::size_t got) {
                                    if (!error) {
                                        received_ += buffer_.add(static_cast<uint32_t>(got));
                                        readSome();
                                    }
                                });
    }

    Buffer buffer_;
};

class LibeventReader {
  public:
    explicit LibeventReader(int fd)
        : base_(event_base_new()),
          stream_(bufferevent_socket_new(base_, fd, BEV_OPT_CLOSE_ON_FREE)) {
        const auto handle = [](bufferevent* stream, void* self) {
            static_cast<LibeventReader*>(self)->take(bufferevent_get_input(stream));
        };
        bufferevent_setcb(stream_, handle, nullptr, nullptr, this);
        bufferevent_set_max_single_read(stream_, readAhead);
        bufferevent_enable(stream_, EV_READ);
    }
    LibeventReader(const LibeventReader&) = delete;
    LibeventReader& operator=(const LibeventReader&) = delete;
    ~LibeventReader() {
        bufferevent_free(stream_);
        event_base_free(base_);
    }
    int read() {
        received_ = 0;
        event_base_loop(base_, EVLOOP_ONCE);
        return received_;
    }

  private:
    void take(evbuffer* input) {
        uint8_t header[headerBytes];
        while (evbuffer_copyout(input, header, headerBytes) == headerBytes) {
            const uint32_t length = lengthOf(header);
            if (evbuffer_get_length(input) < length) {
                return;
            }
            const Message message(length);
            check(evbuffer_remove(input, message.data.get(), length) == static_cast<int>(length),
                  "evbuffer_remove");
            use(message.data.get(), message);
            ++received_;
        }
    }

    event_base* base_;
    bufferevent* stream_;
    int received_ = 0;
};
template <class Reader>
void bursts(benchmark::State& state, uint32_t bodyBytes) {
    const Wire wire;
    Reader reader(wire.receiver);
    std::string message(headerBytes + bodyBytes, 'x');
    message[2] = static_cast<char>(message.size() >> 8);
    message[3] = static_cast<char>(message.size());
    const int burst = bodyBytes < 9000 ? 64 : 32;
    std::string bytes;
    for (int i = 0; i < burst; ++i) {
        bytes += message;
    }
    for (auto _ : state) {
        wire.write(bytes);
        const double start = PavoBench::threadSeconds();
        for (int received = 0; received < burst;) {
            received += reader.read();
        }
        state.SetIterationTime(PavoBench::threadSeconds() - start);
    }
    state.SetItemsProcessed(state.iterations() * burst);
}

[[maybe_unused]] const bool registered = [] {
    for (const uint32_t bodyBytes : {0u, 100u, 1400u, 9000u}) {
        const auto add = [&](const std::string& line, const char* who, auto* function) {
            const std::string name = line + std::to_string(bodyBytes) + "/" + who;
            benchmark::RegisterBenchmark(name.c_str(), function, bodyBytes)->UseManualTime();
        };
        add("PduRead", "pavo", bursts<PavoReader<Pavo::SimpleTcpPduPam, 0, true>>);
        add("PduRead", "epoll", bursts<ExactEpollReader>);
        add("PduRead", "asio", bursts<ExactAsioReader>);
        add("PduReadAhead", "pavo", bursts<PavoReader<Pavo::FramedTcpPduPam, readAhead, false>>);
        add("PduReadAhead", "get_pdu_size",
            bursts<PavoReader<Pavo::SimpleTcpPduPam, readAhead, false>>);
        add("PduReadAhead", "exact_reads", bursts<PavoReader<Pavo::SimpleTcpPduPam, 0, true>>);
        add("PduReadAhead", "epoll", bursts<BufferedEpollReader>);
        add("PduReadAhead", "asio", bursts<BufferedAsioReader>);
        add("PduReadAhead", "libevent", bursts<LibeventReader>);
    }
    return true;
}();

}  // namespace
