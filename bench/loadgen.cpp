// SPDX-License-Identifier: MIT
// loadgen: load generator for line-based request/response servers on TCP.
// One thread, epoll, no dependencies.  Build: g++ -O2 -std=c++17 loadgen*.cpp processfigures.cpp -o loadgen
#include "loadgenoptions.h"
#include "processfigures.h"

#include <netdb.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

static int64_t nowNs()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

// Finds a text in a byte stream that arrives in pieces (Knuth-Morris-Pratt).
struct Matcher
{
    std::string needle;
    std::vector<int> back;
    explicit Matcher(const std::string &s)
        : needle(s)
        , back(s.size(), 0)
    {
        for (size_t i = 1, k = 0; i < s.size(); ++i) {
            while (k && s[i] != s[k])
                k = size_t(back[k - 1]);
            if (s[i] == s[k])
                ++k;
            back[i] = int(k);
        }
    }
    bool feed(int &pos, char c) const
    { // true when the text ends at c
        while (pos && c != needle[size_t(pos)])
            pos = back[size_t(pos) - 1];
        if (c == needle[size_t(pos)])
            ++pos;
        if (size_t(pos) < needle.size())
            return false;
        pos = 0;
        return true;
    }
};

enum class St { Free, Connecting, Hello, Ready, Bye };

struct Conn
{
    int fd = -1, mUntil = 0, mHello = 0, mExpect = 0, issued = 0;
    St st = St::Free;
    bool sawExpect = false, wantOut = false, failed = false;
    std::string out;
    size_t off = 0;
    std::deque<int64_t> sent; // start times of unanswered requests
    int64_t started = 0, limit = 0;
};

class Load
{
public:
    explicit Load(const Options &opt)
        : o(opt)
        , until(o.until)
        , helloUntil(o.helloUntil)
        , expect(o.expect)
        , conns(size_t(o.conns))
        , ep(epoll_create1(EPOLL_CLOEXEC))
    {
        addrinfo hints{}, *res = nullptr;
        hints.ai_socktype = SOCK_STREAM;
        if (getaddrinfo(o.host.c_str(), std::to_string(o.port).c_str(), &hints, &res) != 0 || !res) {
            fprintf(stderr, "loadgen: cannot resolve %s\n", o.host.c_str());
            exit(2);
        }
        memcpy(&addr, res->ai_addr, res->ai_addrlen);
        addrLen = res->ai_addrlen;
        freeaddrinfo(res);
        hardEnd = nowNs() + int64_t((o.deadline > 0 ? o.deadline : o.duration + o.hold + 120) * 1e9);
    }

    int run()
    {
        snapshot("before");
        if (o.pid && !lastProc.procs)
            fail("no_such_pid");
        if (o.mode != "churn") {
            openAll();
            requestAll();
        }
        if (o.mode == "churn")
            churn();
        if (o.mode == "ramp")
            holdAll();
        report();
        return errors.empty() ? 0 : 1;
    }

private:
    const Options &o;
    Matcher until, helloUntil, expect;
    std::vector<Conn> conns;
    int ep;
    sockaddr_storage addr{};
    socklen_t addrLen = 0;
    int64_t hardEnd = 0, stopAt = 0, nextSweep = 0;
    long opened = 0, completed = 0, opening = 0, live = 0, settled = 0; // settled: will send no more
    bool sending = false, late = false;
    ProcInfo lastProc;
    std::map<std::string, long> errors;
    std::vector<int64_t> lat;
    std::vector<std::pair<std::string, double>> values, procValues;

    void fail(const std::string &what) { ++errors[what]; }
    double seconds(int64_t from) const { return double(nowNs() - from) / 1e9; }
    void record(int64_t from)
    {
        lat.push_back(nowNs() - from);
        ++completed;
    }
    void snapshot(const std::string &n)
    {
        const ProcInfo p = lastProc = readProc(o.pid, o.tree);
        if (!p.procs)
            return;
        const std::pair<const char *, double> v[] = {{"_rss_kb", p.rssKb}, {"_pss_kb", p.pssKb},
            {"_threads", p.threads}, {"_fds", p.fds}, {"_procs", p.procs}, {"_cpu_ms", p.cpuMs}};
        for (const auto &e : v)
            procValues.emplace_back(n + e.first, e.second);
    }
    void interest(Conn &c, bool out, int op = EPOLL_CTL_MOD)
    {
        epoll_event e{};
        e.events = EPOLLIN | EPOLLRDHUP | (out ? EPOLLOUT : 0u);
        e.data.u32 = uint32_t(&c - conns.data());
        epoll_ctl(ep, op, c.fd, &e);
        c.wantOut = out;
    }
    void drop(Conn &c, const std::string &why = std::string())
    {
        c.failed = !why.empty();
        if (c.failed)
            fail(why);
        if (c.failed && (c.st != St::Ready || !c.sent.empty() || !c.issued))
            ++settled;
        opening -= c.st == St::Connecting || c.st == St::Hello;
        --live;
        close(c.fd);
        c.fd = -1;
        c.st = St::Free;
    }
    void start(Conn &c)
    {
        c = Conn();
        c.started = nowNs();
        c.limit = c.started + int64_t(o.timeoutMs * 1e6);
        c.fd = socket(addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        c.st = St::Connecting;
        ++opening, ++live;
        const int one = 1;
        if (c.fd < 0)
            return drop(c, std::string("socket_") + strerror(errno));
        setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (connect(c.fd, reinterpret_cast<sockaddr *>(&addr), addrLen) != 0 && errno != EINPROGRESS)
            return drop(c, std::string("connect_") + strerror(errno));
        interest(c, true, EPOLL_CTL_ADD);
    }
    void flush(Conn &c)
    {
        while (c.off < c.out.size()) {
            const ssize_t n = send(c.fd, c.out.data() + c.off, c.out.size() - c.off, MSG_NOSIGNAL);
            if (n > 0) {
                c.off += size_t(n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno != EAGAIN)
                return drop(c, "send_failed");
            if (!c.wantOut)
                interest(c, true);
            return;
        }
        c.out.clear();
        c.off = 0;
        if (c.wantOut)
            interest(c, false);
    }

    void pump(Conn &c)
    { // send as many requests as the depth allows
        if (c.st != St::Ready || !sending)
            return;
        const int quota = o.mode != "rtt" ? 1 : o.requests > 0 ? o.requests : INT_MAX;
        const int64_t t = nowNs();
        while (int(c.sent.size()) < o.depth && c.issued < quota && (!stopAt || t < stopAt)) {
            if (c.sent.empty())
                c.limit = t + int64_t(o.timeoutMs * 1e6);
            c.out += o.request;
            c.sent.push_back(t);
            ++c.issued;
        }
        if (!c.sent.empty())
            return flush(c);
        ++settled;
        if (o.mode != "ramp")
            bye(c);
    }
    void bye(Conn &c)
    {
        if (c.st != St::Ready || o.bye.empty() || o.mode == "rtt")
            return done(c);
        c.st = St::Bye;
        c.limit = nowNs() + int64_t(o.timeoutMs * 1e6);
        c.out += o.bye;
        flush(c);
    }
    void done(Conn &c)
    {
        if (o.mode == "churn")
            record(c.started);
        drop(c);
    }
    void ready(Conn &c)
    {
        --opening;
        c.st = St::Ready;
        c.limit = 0;
        ++opened;
        pump(c);
    }
    void input(Conn &c, const char *p, ssize_t n)
    {
        for (ssize_t i = 0; i < n && c.st != St::Free; ++i) {
            if (c.st == St::Hello && helloUntil.feed(c.mHello, p[i])) {
                ready(c);
                continue;
            }
            if (c.sent.empty())
                continue; // banner, late prompt or farewell
            if (!o.expect.empty() && expect.feed(c.mExpect, p[i]))
                c.sawExpect = true;
            if (!until.feed(c.mUntil, p[i]))
                continue;
            if (!o.expect.empty() && !c.sawExpect)
                fail("response_without_expected_text");
            c.sawExpect = false;
            c.mExpect = 0;
            if (o.mode != "churn")
                record(c.sent.front());
            c.sent.pop_front();
            c.limit = c.sent.empty() ? 0 : nowNs() + int64_t(o.timeoutMs * 1e6);
            if (int(c.sent.size()) <= o.depth / 2)
                pump(c); // refill in halves: requests travel in batches
        }
    }
    void onEvent(Conn &c, uint32_t ev)
    {
        static char buf[1 << 16];
        if (c.st == St::Connecting) {
            int err = 0;
            socklen_t l = sizeof err;
            getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &l);
            if (err)
                return drop(c, std::string("connect_") + strerror(err));
            if (!(ev & EPOLLOUT))
                return;
            c.out = o.hello;
            c.st = St::Hello;
            flush(c);
            if (c.st == St::Hello && o.helloUntil.empty())
                ready(c);
        } else if (c.st != St::Free && (ev & EPOLLOUT)) {
            flush(c);
        }
        while (c.st != St::Free && (ev & ~uint32_t(EPOLLOUT))) {
            const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
            const int one = 1;
            if (n > 0 && o.quickack)
                setsockopt(c.fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
            if (n > 0)
                input(c, buf, n);
            if (n > 0 || (n < 0 && errno == EINTR))
                continue;
            if (n < 0 && errno == EAGAIN)
                return;
            if (c.st == St::Bye)
                return done(c);
            return drop(c, n == 0 ? "closed_by_peer" : "connection_reset");
        }
    }
    void poll(int ms)
    {
        epoll_event ev[512];
        const int n = epoll_wait(ep, ev, 512, ms);
        for (int i = 0; i < n; ++i)
            onEvent(conns[ev[i].data.u32], ev[i].events);
        const int64_t t = nowNs();
        if (t < nextSweep)
            return;
        nextSweep = t + 20000000;
        for (Conn &c : conns)
            if (c.st != St::Free && c.limit && t > c.limit)
                drop(c,
                    c.st == St::Connecting  ? "connect_timeout"
                        : c.st == St::Hello ? "hello_timeout"
                        : c.st == St::Bye   ? "bye_timeout"
                                            : "response_timeout");
        if (t > hardEnd && !late)
            fail("run_deadline");
        late = t > hardEnd;
    }
    void openAll()
    {
        const int64_t t0 = nowNs();
        for (size_t next = 0; (next < conns.size() || opening > 0) && !late; poll(5))
            while (next < conns.size() && opening < o.burst)
                start(conns[next++]);
        const double s = seconds(t0);
        values.insert(values.end(), {{"open_s", s}, {"opened_per_s", double(opened) / s}});
        snapshot("open");
    }
    void requestAll()
    { // let every open connection send its requests
        const double cpu = lastProc.cpuMs;
        const int64_t t0 = nowNs();
        sending = true;
        if (o.requests <= 0 && o.mode == "rtt")
            stopAt = t0 + int64_t(o.duration * 1e9);
        for (Conn &c : conns)
            pump(c);
        while (settled < o.conns && !late)
            poll(5);
        sending = false;
        const double s = seconds(t0);
        values.insert(values.end(), {{"requests_s", s}, {"requests_per_s", double(completed) / s}});
        snapshot("requests");
        if (lastProc.procs && completed)
            values.emplace_back("server_cpu_us_per_request", (lastProc.cpuMs - cpu) * 1000 / double(completed));
    }
    void holdAll()
    {
        for (const int64_t t0 = nowNs(); seconds(t0) < o.hold && !late;)
            poll(20);
        snapshot("hold");
        values.emplace_back("alive_after_hold", double(live));
        for (Conn &c : conns)
            if (c.st != St::Free)
                bye(c);
        while (live > 0 && !late)
            poll(20);
        usleep(500000);
        snapshot("closed");
    }
    void churn()
    {
        const int64_t t0 = nowNs();
        sending = true;
        for (bool more = true; (more || live > 0) && !late; more = seconds(t0) < o.duration) {
            bool pause = false;
            for (Conn &c : conns)
                if (more && c.st == St::Free) {
                    pause |= c.failed;
                    start(c);
                }
            if (pause)
                usleep(1000); // do not spin on a refusing server
            poll(1);
        }
        const double s = seconds(t0);
        values.insert(values.end(), {{"run_s", s}, {"sessions_per_s", double(completed) / s}});
        usleep(500000);
        snapshot("closed");
    }
    void report()
    {
        std::sort(lat.begin(), lat.end());
        auto pct = [this](double q) {
            return lat.empty() ? 0.0 : double(lat[size_t(q * double(lat.size() - 1) + 0.5)]) / 1000.0;
        };
        double bad = 0;
        for (auto &e : errors)
            bad += double(e.second);
        std::vector<std::pair<std::string, double>> v{{"conns", o.conns}, {"depth", o.depth},
            {"opened", double(opened)}, {"completed", double(completed)}, {"errors", bad}, {"p50_us", pct(.5)},
            {"p90_us", pct(.9)}, {"p99_us", pct(.99)}, {"max_us", pct(1)}};
        v.insert(v.end(), values.begin(), values.end());
        v.insert(v.end(), procValues.begin(), procValues.end());
        for (auto &e : errors)
            v.emplace_back("error_" + e.first, double(e.second));
        printf(o.json ? "{\"mode\":\"%s\"" : "mode=%s\n", o.mode.c_str());
        for (auto &p : v)
            printf(o.json ? ",\"%s\":%.9g" : "%s=%.9g\n", p.first.c_str(), p.second);
        if (o.json)
            printf("}\n");
    }
};

int main(int argc, char **argv)
{
    Options o;
    const int bad = readOptions(argc, argv, o);
    if (bad >= 0)
        return bad;
    signal(SIGPIPE, SIG_IGN);
    rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    return Load(o).run();
}
