#include "ctl/list.h"

#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/socket.h"
#include "ctl/print.h"
#include "discovery/announce.h"

namespace ctl {

// The list of a LAN of some thousand units; a peer that sends more is none.
static constexpr size_t kLongestList = 4 << 20;
static constexpr Milliseconds kViaPatience = 60000;

// Who has not been heard for so many seconds in a row, asked twice in each, is gone.
static constexpr int kMissesUntilGone = 4;

static size_t TerminalColumns(FILE *out) {
    winsize size{};
    return ioctl(fileno(out), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;  // as only terminals do
}

static bool IsWanted(const Unit &unit, const Options &options) {
    return !options.project || strcasecmp(unit.info.proj, options.project) == 0;
}

static void PrintLine(Session &session, const Unit &unit) {
    if (session.options.format) {
        PrintFormat(session.out, session.options.format, unit);
    } else {
        PrintPlain(session.out, unit);
    }
}

static void PrintUnits(Session &session) {
    const Options &options = session.options;
    UnitList &units = session.survey.units();
    if (options.json) {
        PrintJson(session.out, session.survey, units.data(), units.count(), nullptr);
    } else if (options.plain || options.format) {
        for (int i = 0; i < units.count(); ++i) {
            PrintLine(session, units[i]);
        }
    } else {
        if (units.count() > 0) {
            PrintTable(session.out, session.survey, TerminalColumns(session.out));
        }
        session.Flush();
        ExplainMarks(session.survey);
    }
}

static void PrintEvent(Session &session, char sign, const char *event, const Unit &unit) {
    if (session.options.json) {
        PrintJson(session.out, session.survey, &unit, 1, event);
    } else {
        fprintf(session.out, "%c\t", sign);
        PrintLine(session, unit);
    }
}

// Compares what was known with what is heard now; `misses` counts for each known unit how often in
// a row it was not.
static void PrintChanges(Session &session, UnitList &known) {
    UnitList &heard = session.survey.units();
    for (int i = 0; i < heard.count(); ++i) {
        if (!IsWanted(heard[i], session.options)) {
            continue;
        }
        const Unit *before = known.Find(heard[i]);
        if (!before) {
            PrintEvent(session, '+', "appeared", heard[i]);
        } else if (memcmp(&before->info, &heard[i].info, sizeof before->info) != 0) {
            PrintEvent(session, '~', "changed", heard[i]);
        }
        // From here on the count is of rounds without an answer.
        if (Unit *taken = known.Take(heard[i])) {
            taken->heard = 0;
        }
    }
    for (int i = known.count() - 1; i >= 0; --i) {
        if (++known[i].heard > kMissesUntilGone) {
            PrintEvent(session, '-', "gone", known[i]);
            known.Drop(i);
        }
    }
}

// Until a signal, or nobody reads any more.
[[noreturn]] static void Watch(Session &session) {
    UnitList known;
    for (;;) {
        PrintChanges(session, known);
        session.Flush();
        session.survey.HearRound(500);
    }
}

static int ConnectTo(const char *address) {
    Address ip;
    if (!ReadAddress(address, &ip)) {
        errno = EINVAL;
        return -1;
    }
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in peer = InternetAddress(htonl(ip), TQ_SERVER_PORT);
    const timeval limit{10, 0};
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return connect(sock, AsSockaddr(peer), sizeof peer) == 0 ? sock : -1;
}

// Reads to the end of the connection. Returns the bytes.
static size_t ReadAll(int sock, char *data, size_t size) {
    const Stopwatch watch;
    size_t used = 0;
    while (used < size && watch.AwaitInput(sock, kViaPatience)) {
        const ssize_t length = recv(sock, data + used, size - used, 0);
        if (length <= 0) {
            break;
        }
        used += static_cast<size_t>(length);
    }
    return used;
}

static void TakeTold(Unit &unit, void *context) {
    Session &session = *static_cast<Session *>(context);
    unit.Place(session.links, -1);
    session.survey.units().Take(unit);
}

static void AskVia(Session &session) {
    const char *via = session.options.via;
    FindLinks(session.options, &session.links);  // which addresses would fit here
    const UniqueFd sock(ConnectTo(via));
    if (!sock) {
        Fail(kNoUnit,
             "can't reach %s, TCP port %d: %s. Is it the address of a native unit, and does every "
             "firewall between let that port through?",
             via, TQ_SERVER_PORT, strerror(errno));
    }
    // A server wants all fields, and reads none of them.
    char text[] = "Moravelle,02,-,-,-,0.0.0.0,0,0.0.0.0,-,-,00:00:00:00:00:00,-,-";
    char request[Base64TextSize(sizeof text)];
    discovery::EncodeTexts(text, request);
    const HeapBlock<char> list = ZeroedBlock(kLongestList);
    if (!list || send(sock.get(), request, sizeof request, MSG_NOSIGNAL) == -1) {
        Fail(kFailed, "can't ask %s: %s", via, strerror(errno));
    }
    const size_t length = ReadAll(sock.get(), list.get(), kLongestList);
    ReadPackage(list.get(), length, TakeTold, &session);
    session.survey.units().Sort();
}

void List(Session &session) {
    const Options &options = session.options;
    if (options.format) {
        CheckFormat(options.format);
    }
    if (options.via) {
        AskVia(session);
    } else {
        session.Start();
    }
    if (options.watch) {
        Watch(session);
    }
    UnitList &units = session.survey.units();
    const int heard = units.count();
    for (int i = heard - 1; i >= 0; --i) {
        if (!IsWanted(units[i], options)) {
            units.Drop(i);
        }
    }
    PrintUnits(session);
    session.Flush();
    if (units.count() == 0 && heard > 0) {
        Fail(kNoUnit, "none of %d units is of project '%s'", heard, options.project);
    }
    if (units.count() == 0 && options.via) {
        Fail(kNoUnit, "%s gave no list: a unit that finds no other on its LAN gives none",
             options.via);
    }
    if (units.count() == 0) {
        Fail(kNoUnit, "no unit answered. %s", kLikeliest);
    }
}

void Show(Session &session) {
    session.SelectUnit();
    if (session.options.json) {
        PrintJson(session.out, session.survey, &session.unit, 1, nullptr);
    } else {
        PrintUnit(session.out, session.unit);
    }
}

}  // namespace ctl
