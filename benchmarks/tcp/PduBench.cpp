// Messages with a 20-byte header read off a loopback TCP stream, beside a bare epoll loop that
// makes the same system calls and beside Boost.Asio. A burst is written at once, the same for all,
// and then read; the reading alone is timed.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/TcpPduPam.h"

namespace {

constexpr uint32_t headerBytes = 20;

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

class PavoReader {
  public:
    explicit PavoReader(int fd)
        : pam_(Pavo::simpleTcpPduPamFactory(
              Pavo::tcpFileDescriptorFactory(fd, /*edgeTriggered=*/true),
              Pavo::tcpFileDescriptorEventRegistrationFactoryMoxcFactory())),
          watch_(pam_, Pavo::Pam::readableCountAttr, [this] {
              while (const auto pkt = pam_->rxPkt()) {
                  benchmark::DoNotOptimize(pkt->frontData());
                  ++received_;
              }
          }) {
        pam_->enabledIs(true);
    }
    int read() {
        received_ = 0;
        loop_.turn();
        return received_;
    }

  private:
    Mox::EventLoop loop_;
    Mox::Ptr<Pavo::SimpleTcpPduPam> pam_;
    int received_ = 0;
    Mox::Watch<Pavo::SimpleTcpPduPam> watch_;
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
    int read() {
        epoll_event event{};
        check(epoll_wait(epoll_, &event, 1, -1) == 1, "epoll_wait");
        int received = 0;
        while (readPart()) {
            if (held_ == headerBytes) {
                wanted_ = static_cast<uint32_t>(data_[2] << 8 | data_[3]);
            }
            if (held_ == wanted_) {
                benchmark::DoNotOptimize(data_);
                held_ = 0;
                wanted_ = headerBytes;
                ++received;
            }
        }
        return received;
    }

  private:
    bool readPart() {
        const ssize_t got = recv(fd_, data_ + held_, wanted_ - held_, MSG_DONTWAIT);
        held_ += got > 0 ? static_cast<uint32_t>(got) : 0;
        return got > 0;
    }

    int fd_;
    int epoll_;
    uint32_t held_ = 0;
    uint32_t wanted_ = headerBytes;
    uint8_t data_[10000];
};

class AsioReader {
  public:
    explicit AsioReader(int fd) : socket_(context_, boost::asio::ip::tcp::v4(), fd) {
        readHeader();
    }
    int read() {
        received_ = 0;
        context_.run_one();
        context_.poll();
        return received_;
    }

  private:
    void readHeader() {
        boost::asio::async_read(socket_, boost::asio::buffer(data_, headerBytes),
                                [this](boost::system::error_code error, std::size_t) {
                                    if (!error) {
                                        readBody();
                                    }
                                });
    }
    void readBody() {
        const auto bytes = static_cast<std::size_t>(data_[2] << 8 | data_[3]) - headerBytes;
        if (bytes == 0) {
            take();
            return;
        }
        boost::asio::async_read(socket_, boost::asio::buffer(data_ + headerBytes, bytes),
                                [this](boost::system::error_code error, std::size_t) {
                                    if (!error) {
                                        take();
                                    }
                                });
    }
    void take() {
        benchmark::DoNotOptimize(data_);
        ++received_;
        readHeader();
    }

    boost::asio::io_context context_{1};
    boost::asio::ip::tcp::socket socket_;
    uint8_t data_[10000];
    int received_ = 0;
};

// Processor time of this thread, which never waits, so that other programs do not count.
double threadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

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
        const double start = threadSeconds();
        for (int received = 0; received < burst;) {
            received += reader.read();
        }
        state.SetIterationTime(threadSeconds() - start);
    }
    state.SetItemsProcessed(state.iterations() * burst);
}

[[maybe_unused]] const bool registered = [] {
    for (const uint32_t bodyBytes : {0u, 100u, 1400u, 9000u}) {
        const std::string line = "PduRead" + std::to_string(bodyBytes) + "/";
        const auto add = [&](const char* who, auto* function) {
            benchmark::RegisterBenchmark((line + who).c_str(), function, bodyBytes)
                ->UseManualTime();
        };
        add("pavo", bursts<PavoReader>);
        add("epoll", bursts<EpollReader>);
        add("asio", bursts<AsioReader>);
    }
    return true;
}();

}  // namespace
