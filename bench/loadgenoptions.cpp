// SPDX-License-Identifier: MIT
#include "loadgenoptions.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>

static const char *kHelp = R"(usage: loadgen --mode rtt|ramp|churn --port P --request STR --until STR [options]
modes
  rtt     every connection sends requests (up to --depth unanswered ones at a time)
          and the time from sending to the end of the answer is measured
  ramp    opens --conns connections, keeps them, sends one request on each, holds
          them for --hold seconds, then closes them
  churn   --conns workers loop connect, hello, one request, close for --duration
options                 (in STR, \r \n \t \e \0 \\ and \xHH are decoded)
  --host A              server address (127.0.0.1)
  --port P              server port
  --conns N             connections, or parallel workers in churn (1)
  --requests M          requests per connection in rtt (1000); 0 = use --duration
  --duration S          seconds for churn, and for rtt with --requests 0 (10)
  --hello STR           bytes sent as soon as the connection is open (none)
  --hello-until STR     wait for this text before the first request (do not wait)
  --request STR         one request, sent as it is
  --until STR           text that ends one response
  --expect STR          text that each response must hold before --until (none)
  --bye STR             churn and ramp: sent last, then wait for the peer's close
  --depth D             unanswered requests allowed per connection in rtt (1)
  --burst B             connections being opened at a time (256)
  --timeout MS          limit for connect + hello, and for each response (5000)
  --deadline S          limit for the whole run (duration + hold + 120)
  --hold S              ramp: seconds to keep the connections afterwards (1)
  --quickack            acknowledge at once (hides a server without TCP_NODELAY)
  --pid PID             report the server's RSS, PSS, threads, fds and CPU time
  --tree                with --pid: sum over the process and its descendants
  --json                one JSON object instead of key=value lines
exit status: 0 all went well, 1 something failed, 2 bad usage)";

static std::string decode(const char *s)
{
    static const std::string names = "rnte0", codes("\r\n\t\x1b\0", 5);
    std::string r;
    for (; *s; ++s) {
        if (*s != '\\' || !s[1]) {
            r += *s;
            continue;
        }
        const size_t k = names.find(*++s);
        if (*s == 'x' && isxdigit(static_cast<unsigned char>(s[1])) && isxdigit(static_cast<unsigned char>(s[2]))) {
            r += char(strtol(std::string(s + 1, 2).c_str(), nullptr, 16));
            s += 2;
        } else {
            r += k == std::string::npos ? *s : codes[k];
        }
    }
    return r;
}

int readOptions(int argc, char **argv, Options &o)
{
    const std::map<std::string, bool *> flags{{"--tree", &o.tree}, {"--json", &o.json}, {"--quickack", &o.quickack}};
    const std::map<std::string, int *> ints{{"--port", &o.port}, {"--conns", &o.conns}, {"--depth", &o.depth},
        {"--burst", &o.burst}, {"--pid", &o.pid}, {"--requests", &o.requests}};
    const std::map<std::string, double *> reals{
        {"--duration", &o.duration}, {"--timeout", &o.timeoutMs}, {"--deadline", &o.deadline}, {"--hold", &o.hold}};
    const std::map<std::string, std::string *> texts{{"--mode", &o.mode}, {"--host", &o.host}, {"--hello", &o.hello},
        {"--hello-until", &o.helloUntil}, {"--request", &o.request}, {"--until", &o.until}, {"--expect", &o.expect},
        {"--bye", &o.bye}};
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h")
            return puts(kHelp) < 0;
        if (flags.count(a)) {
            *flags.at(a) = true;
            continue;
        }
        const char *v = i + 1 < argc ? argv[++i] : nullptr;
        if (v && ints.count(a))
            *ints.at(a) = atoi(v);
        else if (v && reals.count(a))
            *reals.at(a) = atof(v);
        else if (v && texts.count(a))
            *texts.at(a) = decode(v);
        else
            return fprintf(stderr, "loadgen: unknown option or missing value: %s\n", a.c_str()), 2;
    }
    if ((o.mode != "rtt" && o.mode != "ramp" && o.mode != "churn") || o.port <= 0 || o.port > 65535 || o.request.empty()
        || o.until.empty() || o.conns < 1 || o.depth < 1 || o.burst < 1 || o.duration <= 0)
        return fprintf(stderr, "%s\n", kHelp), 2;
    return -1;
}
