#include "eventLoopWaker.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace vesk::duvo::opcua::detail {

namespace {

UA_ConnectionManager* findTcpManager(UA_EventLoop* loop) {
    UA_String tcp = UA_STRING(const_cast<char*>("tcp"));
    for (UA_EventSource* es = loop->eventSources; es != nullptr; es = es->next) {
        if (es->eventSourceType != UA_EVENTSOURCETYPE_CONNECTIONMANAGER) continue;
        auto* cm = reinterpret_cast<UA_ConnectionManager*>(es);
        if (UA_String_equal(&cm->protocol, &tcp)) return cm;
    }
    return nullptr;
}

struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

} // namespace

EventLoopWaker::~EventLoopWaker() {
    if (fd_ >= 0) ::close(fd_);
}

bool EventLoopWaker::open(UA_EventLoop* loop) {
    if (loop->state != UA_EVENTLOOPSTATE_STARTED && loop->start(loop) != UA_STATUSCODE_GOOD) return false;
    UA_ConnectionManager* cm = findTcpManager(loop);
    if (cm == nullptr) return false;

    Fd listener{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (listener.fd < 0) return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.fd, 1) != 0 ||
        ::getsockname(listener.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return false;

    UA_String host = UA_STRING(const_cast<char*>("127.0.0.1"));
    UA_UInt16 port = ntohs(address.sin_port);
    UA_KeyValuePair params[2];
    params[0].key = UA_QUALIFIEDNAME(0, const_cast<char*>("address"));
    UA_Variant_setScalar(&params[0].value, &host, &UA_TYPES[UA_TYPES_STRING]);
    params[1].key = UA_QUALIFIEDNAME(0, const_cast<char*>("port"));
    UA_Variant_setScalar(&params[1].value, &port, &UA_TYPES[UA_TYPES_UINT16]);
    const UA_KeyValueMap map{2, params};
    loop->lock(loop);
    const UA_StatusCode rc = cm->openConnection(cm, &map, this, nullptr, &EventLoopWaker::onConnection);
    loop->unlock(loop);
    if (rc != UA_STATUSCODE_GOOD) return false;

    // The kernel completes a loopback handshake by itself, before the loop runs.
    pollfd ready{listener.fd, POLLIN, 0};
    if (::poll(&ready, 1, 2000) != 1) return false;
    fd_ = ::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd_ < 0) return false;
    const int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return true;
}

void EventLoopWaker::wake() {
    if (fd_ < 0) return;
    const char byte = 0;
    // A full buffer means a wake is pending already.
    while (::send(fd_, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno == EINTR) {}
}

void EventLoopWaker::onConnection(UA_ConnectionManager*, uintptr_t, void* application, void**, UA_ConnectionState state,
                                  const UA_KeyValueMap*, UA_ByteString) {
    if (state == UA_CONNECTIONSTATE_CLOSING && application != nullptr)
        static_cast<EventLoopWaker*>(application)->closed_.store(true);
}

} // namespace vesk::duvo::opcua::detail
