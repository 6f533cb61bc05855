#include <vesk/duvo/sim/faultProxy.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vesk::duvo::sim {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxConnections = 64;
// Per direction and connection; beyond it the proxy stops reading that side.
constexpr std::size_t kMaxBuffered = 4u << 20;
constexpr std::size_t kReadSize = 64u << 10;

[[noreturn]] void throwErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

struct Target {
    sockaddr_storage address{};
    socklen_t length = 0;
    std::string path;
};

/// Host, port and path of "[scheme://]host:port[/path]"; an IPv6 host is in brackets.
Target resolve(const std::string& endpoint) {
    std::string rest = endpoint;
    if (auto scheme = rest.find("://"); scheme != std::string::npos) rest = rest.substr(scheme + 3);
    Target target;
    if (auto slash = rest.find('/'); slash != std::string::npos) {
        target.path = rest.substr(slash);
        rest = rest.substr(0, slash);
    }
    const auto colon = rest.rfind(':');
    if (colon == std::string::npos || colon + 1 == rest.size())
        throw std::system_error(std::make_error_code(std::errc::invalid_argument), "no port in '" + endpoint + "'");
    std::string host = rest.substr(0, colon);
    const std::string port = rest.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);

    // IPv4 first: servers here listen on 127.0.0.1 while "localhost" may also name ::1.
    for (int family : {AF_INET, AF_UNSPEC}) {
        addrinfo hints{};
        hints.ai_family = family;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) == 0 && found) {
            std::memcpy(&target.address, found->ai_addr, found->ai_addrlen);
            target.length = found->ai_addrlen;
            ::freeaddrinfo(found);
            return target;
        }
    }
    throw std::system_error(std::make_error_code(std::errc::host_unreachable), "cannot resolve '" + endpoint + "'");
}

struct Chunk {
    std::vector<char> bytes;
    std::size_t sent = 0;
    Clock::time_point due;
};

struct Connection {
    int client = -1;
    int server = -1;
    bool connecting = true;
    bool tainted = false;      // replies were dropped: the client's stream is broken
    bool serverClosed = false; // close once the client has what the server sent
    bool dead = false;
    std::deque<Chunk> toServer;
    std::deque<Chunk> toClient;
    std::size_t toServerBytes = 0;
    std::size_t toClientBytes = 0;
    // Both streams are cut into whole messages, so that replies can be held one by one.
    std::vector<char> partFromClient;
    std::vector<char> partFromServer;
    std::set<std::uint32_t> slowRequests; // ids of requests whose replies are held
    std::deque<Chunk> held;               // replies held back, due in order
    // Once a reply was held, later ones overtake it: the sequence numbers are given anew in
    // the order the client gets the messages, as it checks them.
    bool renumber = false;
    std::uint32_t lastSequence = 0;
    std::string recentToServer; // the tail that a looked-for text may continue from

    ~Connection() {
        closeFd(client);
        closeFd(server);
    }
};

/// Sends the chunks that are due; false when the socket failed.
bool flush(int fd, std::deque<Chunk>& queue, std::size_t& queued, Clock::time_point now) {
    while (!queue.empty() && queue.front().due <= now) {
        Chunk& c = queue.front();
        const ssize_t n = ::send(fd, c.bytes.data() + c.sent, c.bytes.size() - c.sent, MSG_NOSIGNAL);
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        c.sent += static_cast<std::size_t>(n);
        if (c.sent < c.bytes.size()) return true;
        queued -= c.bytes.size();
        queue.pop_front();
    }
    return true;
}

enum class ReadResult { Data, WouldBlock, Closed };

ReadResult readSome(int fd, std::vector<char>& out) {
    out.resize(kReadSize);
    const ssize_t n = ::recv(fd, out.data(), out.size(), 0);
    if (n > 0) {
        out.resize(static_cast<std::size_t>(n));
        return ReadResult::Data;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return ReadResult::WouldBlock;
    return ReadResult::Closed;
}

std::uint32_t readUint32(const std::vector<char>& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    return value;
}

void writeUint32(std::vector<char>& bytes, std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

/// The whole messages at the start of part (8-byte header: type, chunk type, size), taken out.
std::vector<std::vector<char>> wholeMessages(std::vector<char>& part) {
    std::vector<std::vector<char>> messages;
    std::size_t at = 0;
    while (part.size() - at >= 8) {
        const std::size_t size = readUint32(part, at + 4);
        if (size < 8) { // not OPC UA: forwarded as it is
            messages.emplace_back(part.begin() + static_cast<std::ptrdiff_t>(at), part.end());
            at = part.size();
            break;
        }
        if (part.size() - at < size) break;
        messages.emplace_back(part.begin() + static_cast<std::ptrdiff_t>(at),
                              part.begin() + static_cast<std::ptrdiff_t>(at + size));
        at += size;
    }
    part.erase(part.begin(), part.begin() + static_cast<std::ptrdiff_t>(at));
    return messages;
}

/// A service message or a close (they carry a sequence number and a request id).
bool isSymmetric(const std::vector<char>& message) {
    return message.size() >= 24 &&
           (std::memcmp(message.data(), "MSG", 3) == 0 || std::memcmp(message.data(), "CLO", 3) == 0);
}

} // namespace

struct FaultProxy::Impl {
    Impl(const std::string& targetEndpoint, std::uint16_t listenPort) : target_(resolve(targetEndpoint)) {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) throwErrno("pipe2");
        wakeRead_ = fds[0];
        wakeWrite_ = fds[1];
        try {
            listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (listenFd_ < 0) throwErrno("socket");
            int on = 1;
            ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            address.sin_port = htons(listenPort);
            if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
                throwErrno("cannot listen on port " + std::to_string(listenPort));
            if (::listen(listenFd_, 64) != 0) throwErrno("listen");
            socklen_t length = sizeof address;
            if (::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
                throwErrno("getsockname");
            port_ = ntohs(address.sin_port);
        } catch (...) {
            closeFd(listenFd_);
            closeFd(wakeRead_);
            closeFd(wakeWrite_);
            throw;
        }
        thread_ = std::thread([this] { run(); });
    }

    ~Impl() {
        stopping_ = true;
        wake();
        thread_.join();
        connections_.clear();
        closeFd(listenFd_);
        closeFd(wakeRead_);
        closeFd(wakeWrite_);
    }

    void setMode(Mode m, std::chrono::milliseconds d = std::chrono::milliseconds(0), std::string marker = {}) {
        {
            std::lock_guard<std::mutex> lock(markerMutex_);
            slowMarker_ = std::move(marker);
        }
        delayMs_ = d.count();
        mode_ = m;
        wake();
    }

    void wake() {
        const char byte = 0;
        [[maybe_unused]] auto ignored = ::write(wakeWrite_, &byte, 1); // a full pipe wakes as well
    }

    void run();
    void look(Connection& c, const std::vector<char>& bytes) {
        std::lock_guard<std::mutex> lock(lookMutex_);
        if (lookedFor_.empty()) return;
        c.recentToServer.append(bytes.data(), bytes.size());
        if (c.recentToServer.find(lookedFor_) != std::string::npos) lookedForFound_ = true;
        if (c.recentToServer.size() >= lookedFor_.size())
            c.recentToServer.erase(0, c.recentToServer.size() - (lookedFor_.size() - 1));
    }
    void accept(Mode current);
    void service(Connection& c, short clientEvents, short serverEvents, Mode current, Clock::time_point now);
    void toClient(Connection& c, std::vector<char> message, Clock::time_point due);

    const Target target_;
    std::uint16_t port_ = 0;
    int listenFd_ = -1;
    int wakeRead_ = -1;
    int wakeWrite_ = -1;
    std::atomic<Mode> mode_{Mode::PassThrough};
    std::atomic<long long> delayMs_{0};
    std::mutex markerMutex_;
    std::string slowMarker_; // DelaySome: requests that contain these bytes
    std::atomic<bool> stopping_{false};
    std::atomic<std::size_t> open_{0};
    std::mutex lookMutex_;
    std::string lookedFor_;
    std::atomic<bool> lookedForFound_{false};
    std::list<Connection> connections_; // proxy thread only
    std::thread thread_;
};

void FaultProxy::Impl::accept(Mode current) {
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        if (current == Mode::CloseAll || connections_.size() >= kMaxConnections) {
            ::close(fd);
            continue;
        }
        Connection& c = connections_.emplace_back();
        c.client = fd;
        c.server = ::socket(target_.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (c.server < 0 ||
            (::connect(c.server, reinterpret_cast<const sockaddr*>(&target_.address), target_.length) != 0 &&
             errno != EINPROGRESS))
            c.dead = true;
    }
}

void FaultProxy::Impl::service(Connection& c, short clientEvents, short serverEvents, Mode current,
                               Clock::time_point now) {
    std::vector<char> bytes;
    if (clientEvents & (POLLIN | POLLHUP | POLLERR)) {
        switch (readSome(c.client, bytes)) {
        case ReadResult::Closed:
            c.dead = true;
            return;
        case ReadResult::WouldBlock:
            break;
        case ReadResult::Data: {
            look(c, bytes);
            c.partFromClient.insert(c.partFromClient.end(), bytes.begin(), bytes.end());
            std::string marker;
            if (current == Mode::DelaySome) {
                std::lock_guard<std::mutex> lock(markerMutex_);
                marker = slowMarker_;
            }
            for (auto& message : wholeMessages(c.partFromClient)) {
                if (!marker.empty() && isSymmetric(message) &&
                    std::search(message.begin(), message.end(), marker.begin(), marker.end()) != message.end())
                    c.slowRequests.insert(readUint32(message, 20));
                c.toServerBytes += message.size();
                c.toServer.push_back({std::move(message), 0, now});
            }
            break;
        }
        }
    }
    if (c.connecting && (serverEvents & (POLLOUT | POLLERR | POLLHUP))) {
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(c.server, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
            c.dead = true;
            return;
        }
        c.connecting = false;
    } else if (!c.connecting && !c.serverClosed && (serverEvents & (POLLIN | POLLHUP | POLLERR))) {
        switch (readSome(c.server, bytes)) {
        case ReadResult::Closed:
            c.serverClosed = true;
            break;
        case ReadResult::WouldBlock:
            break;
        case ReadResult::Data:
            c.partFromServer.insert(c.partFromServer.end(), bytes.begin(), bytes.end());
            for (auto& message : wholeMessages(c.partFromServer)) {
                if (current == Mode::Blackhole) {
                    c.tainted = true;
                    continue;
                }
                const std::chrono::milliseconds delay(delayMs_.load());
                if (current == Mode::DelaySome && isSymmetric(message) &&
                    c.slowRequests.count(readUint32(message, 20))) {
                    if (message[3] != 'C') c.slowRequests.erase(readUint32(message, 20)); // its last chunk
                    c.renumber = true;
                    c.held.push_back({std::move(message), 0, now + delay});
                    continue;
                }
                toClient(c, std::move(message), current == Mode::Delay ? now + delay : now);
            }
            break;
        }
    }
    while (!c.held.empty() && (c.held.front().due <= now || current != Mode::DelaySome)) {
        toClient(c, std::move(c.held.front().bytes), now);
        c.held.pop_front();
    }
    if (!c.connecting && !flush(c.server, c.toServer, c.toServerBytes, now)) c.dead = true;
    if (!flush(c.client, c.toClient, c.toClientBytes, now)) c.dead = true;
    if (c.serverClosed && c.toClient.empty()) c.dead = true;
}

void FaultProxy::Impl::toClient(Connection& c, std::vector<char> message, Clock::time_point due) {
    if (isSymmetric(message)) {
        if (c.renumber)
            writeUint32(message, 16, ++c.lastSequence);
        else
            c.lastSequence = readUint32(message, 16);
    }
    c.toClientBytes += message.size();
    c.toClient.push_back({std::move(message), 0, due});
}

void FaultProxy::Impl::run() {
    std::vector<pollfd> fds;
    while (!stopping_) {
        const Clock::time_point now = Clock::now();
        fds.clear();
        fds.push_back({wakeRead_, POLLIN, 0});
        fds.push_back({listenFd_, POLLIN, 0});
        int timeout = -1;
        for (const Connection& c : connections_) {
            short clientEvents = c.toServerBytes < kMaxBuffered ? POLLIN : 0;
            short serverEvents = 0;
            if (c.connecting)
                serverEvents = POLLOUT;
            else if (!c.serverClosed) {
                if (c.toClientBytes < kMaxBuffered) serverEvents |= POLLIN;
                if (!c.toServer.empty()) serverEvents |= POLLOUT;
            }
            for (const auto* queue : {&c.toClient, &c.held}) {
                if (queue->empty()) continue;
                const auto due = queue->front().due;
                if (due <= now)
                    clientEvents |= POLLOUT;
                else {
                    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
                    timeout = timeout < 0 ? static_cast<int>(wait) : std::min(timeout, static_cast<int>(wait));
                }
            }
            fds.push_back({c.client, clientEvents, 0});
            fds.push_back({c.server, serverEvents, 0});
        }
        if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) break;
        if (stopping_) break;

        if (fds[0].revents & POLLIN) {
            char drain[64];
            while (::read(wakeRead_, drain, sizeof drain) > 0) {}
        }
        const Mode latest = mode_;
        std::size_t i = 2;
        const Clock::time_point after = Clock::now();
        for (Connection& c : connections_) {
            // Connections accepted during this round have no poll entries yet.
            if (i >= fds.size()) break;
            const short clientEvents = fds[i].revents;
            const short serverEvents = fds[i + 1].revents;
            i += 2;
            if (latest == Mode::CloseAll || (c.tainted && latest != Mode::Blackhole))
                c.dead = true;
            else
                service(c, clientEvents, serverEvents, latest, after);
        }
        if (latest == Mode::CloseAll)
            for (Connection& c : connections_) c.dead = true;
        connections_.remove_if([](const Connection& c) { return c.dead; });
        if (fds[1].revents & POLLIN) accept(latest);
        connections_.remove_if([](const Connection& c) { return c.dead; });
        open_ = connections_.size();
    }
}

FaultProxy::FaultProxy(const std::string& targetEndpoint, std::uint16_t listenPort)
    : impl_(std::make_unique<Impl>(targetEndpoint, listenPort)) {}

FaultProxy::~FaultProxy() = default;

std::uint16_t FaultProxy::port() const { return impl_->port_; }

std::string FaultProxy::endpoint() const {
    return "opc.tcp://127.0.0.1:" + std::to_string(impl_->port_) + impl_->target_.path;
}

void FaultProxy::passThrough() { impl_->setMode(Mode::PassThrough); }

void FaultProxy::delayReplies(std::chrono::milliseconds delay) { impl_->setMode(Mode::Delay, delay); }

void FaultProxy::delayRepliesTo(const std::string& requestBytes, std::chrono::milliseconds delay) {
    impl_->setMode(Mode::DelaySome, delay, requestBytes);
}

void FaultProxy::blackhole() { impl_->setMode(Mode::Blackhole); }

void FaultProxy::closeAll() { impl_->setMode(Mode::CloseAll); }

FaultProxy::Mode FaultProxy::mode() const { return impl_->mode_; }

std::size_t FaultProxy::connections() const { return impl_->open_; }

void FaultProxy::lookFor(const std::string& text) {
    std::lock_guard<std::mutex> lock(impl_->lookMutex_);
    impl_->lookedFor_ = text;
    impl_->lookedForFound_ = false;
}

bool FaultProxy::found() const { return impl_->lookedForFound_; }

} // namespace vesk::duvo::sim
