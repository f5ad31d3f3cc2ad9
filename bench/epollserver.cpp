// SPDX-License-Identifier: MIT
// The floor under every line server: one thread, epoll, and the answer of lineserver to each line.   epollserver PORT
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>

static const std::string greeting = "ConnectId\n", answer = std::string(300, 'x') + "ZEL_SHELL_PACKET_END\r\n";

static void watch(int epoll, int descriptor)
{
    epoll_event event{EPOLLIN, {}};
    event.data.fd = descriptor;
    epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

static bool serve(int descriptor, bool &greeted)
{
    char buffer[65536];
    const ssize_t count = recv(descriptor, buffer, sizeof buffer, 0);
    std::string out;
    for (ssize_t i = 0; i < count; ++i) {
        if (buffer[i] != '\n')
            continue;
        out += greeted ? answer : greeting;
        greeted = true;
    }
    for (size_t sent = 0; sent < out.size();) {
        const ssize_t n = send(descriptor, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
        if (n < 0)
            return false;
        sent += size_t(n);
    }
    return count > 0;
}

int main(int argc, char **argv)
{
    if (argc != 2)
        return fprintf(stderr, "epollserver PORT\n"), 2;
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int listener = socket(AF_INET, SOCK_STREAM, 0), on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(listener, 4096) != 0)
        return perror("epollserver"), 1;
    const int epoll = epoll_create1(0);
    watch(epoll, listener);
    std::unordered_map<int, bool> greeted;
    for (;;) {
        epoll_event events[256];
        const int count = epoll_wait(epoll, events, 256, -1);
        for (int i = 0; i < count; ++i) {
            const int descriptor = events[i].data.fd;
            if (descriptor == listener) {
                const int peer = accept(listener, nullptr, nullptr);
                setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                greeted[peer] = false;
                watch(epoll, peer);
            } else if (!serve(descriptor, greeted[descriptor])) {
                close(descriptor);
            }
        }
    }
}
