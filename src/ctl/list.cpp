#include "ctl/list.h"

#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "common/socket.h"
#include "ctl/print.h"
#include "ctl/text.h"
#include "discovery/announce.h"

namespace ctl {

// The list of a LAN of some thousand units; a peer that sends more is none.
static constexpr size_t kLongestList = 4 << 20;
static constexpr Milliseconds kViaPatience = 60000;

// Who has not been heard for so many seconds in a row, asked twice in each, is gone.
static constexpr int kMissesUntilGone = 4;

// Drops the units of other projects than the one that was asked for.
static void KeepWanted(Session &session) {
    const char *project = session.options.project;
    session.survey.units().Keep([project](const Unit &unit) {
        return !project || strcasecmp(unit.info.proj, project) == 0;
    });
}

static void PrintLine(Session &session, const Unit &unit) {
    if (session.options.format) {
        PrintFormat(session.options.format, unit);
    } else {
        PrintPlain(unit);
    }
}

static void PrintUnits(Session &session) {
    const Options &options = session.options;
    UnitList &units = session.survey.units();
    if (options.json) {
        PrintJson(session.survey, units.begin(), units.count(), nullptr);
    } else if (options.plain || options.format) {
        for (const Unit &unit : units) {
            PrintLine(session, unit);
        }
    } else {
        if (units.count() > 0) {
            PrintTable(session.survey, TerminalColumns(STDOUT_FILENO));
        }
        session.Flush();
        ExplainMarks(session.survey);
    }
}

static void PrintEvent(Session &session, char sign, const char *event, const Unit &unit) {
    if (session.options.json) {
        PrintJson(session.survey, &unit, 1, event);
    } else {
        printf("%c\t", sign);
        PrintLine(session, unit);
    }
}

// Compares what was known with what is heard now.
static void PrintChanges(Session &session, UnitList &known) {
    KeepWanted(session);
    for (const Unit &heard : session.survey.units()) {
        const Unit *before = known.Find(heard);
        if (!before) {
            PrintEvent(session, '+', "appeared", heard);
        } else if (memcmp(&before->info, &heard.info, sizeof before->info) != 0) {
            PrintEvent(session, '~', "changed", heard);
        }
        // From here on the count is of rounds without an answer.
        if (Unit *taken = known.Take(heard)) {
            taken->heard = 0;
        }
    }
    known.Keep([&](Unit &unit) {
        if (++unit.heard <= kMissesUntilGone) {
            return true;
        }
        PrintEvent(session, '-', "gone", unit);
        return false;
    });
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

static bool Connect(int sock, Address ip) {
    const sockaddr_in peer = InternetAddress(htonl(ip), TQ_SERVER_PORT);
    const timeval limit{10, 0};
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return connect(sock, AsSockaddr(peer), sizeof peer) == 0;
}

// Reads to the end of the connection. Returns the bytes.
static size_t ReadAll(int sock, char *data, size_t size) {
    const Stopwatch watch;
    size_t used = 0;
    while (used < size && watch.AwaitInput(sock, kViaPatience)) {
        const ssize_t length = read(sock, data + used, size - used);
        if (length <= 0) {
            break;
        }
        used += static_cast<size_t>(length);
    }
    return used;
}

static void TakeTold(Unit &unit, void *context) {
    Session &session = *static_cast<Session *>(context);
    unit.Place(session.links, nullptr);
    session.survey.units().Take(unit);
}

static void AskVia(Session &session) {
    const char *via = session.options.via;
    FindLinks(session.options, &session.links);  // which addresses would fit here
    const UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!Connect(sock.get(), ReadOption("unit", via))) {
        __extension__ Fail(
            kNoUnit,
            "can't reach %s, TCP port %d: %m. Is it a native unit's address, and does every "
            "firewall let that port through?",
            via, TQ_SERVER_PORT);
    }
    // A server wants all fields, and reads none of them.
    char text[] = "Moravelle,02,-,-,-,0.0.0.0,0,0.0.0.0,-,-,00:00:00:00:00:00,-,-";
    char request[Base64TextSize(sizeof text)];
    discovery::EncodeTexts(text, request);
    const HeapBlock<char> list = ZeroedBlock(kLongestList);
    if (!list || sendto(sock.get(), request, sizeof request, MSG_NOSIGNAL, nullptr, 0) == -1) {
        __extension__ Fail(kFailed, "can't ask %s: %m", via);
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
    KeepWanted(session);
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
        PrintJson(session.survey, &session.unit, 1, nullptr);
    } else {
        PrintUnit(session.unit);
    }
}

}  // namespace ctl
