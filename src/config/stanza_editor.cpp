#include "config/stanza_editor.h"

#include <cstdio>
#include <cstring>

#include "common/address.h"
#include "config/in_place_edit.h"

namespace config {

static constexpr InPlaceEditRules kRules{"/tmp/TQ_XXXXXX", "faied", false, false};
static constexpr char kStanzaWord[] = "iface";
static constexpr char kAutoWord[] = "auto";

static bool BeginsWith(const char *line, const char *word) {
    return strncmp(line, word, strlen(word)) == 0;
}

// Whether an "iface" line names an interface that begins with `device`. One separator stands
// between the word and the name.
static bool NamesDevice(const char *line, const char *device) {
    return strlen(line) > strlen(kStanzaWord) && BeginsWith(line + strlen(kStanzaWord) + 1, device);
}

// Writes the file's new text to the copy. Returns 0 or -1.
static int WriteNewText(InPlaceEdit *edit, const StanzaEdit &wanted) {
    int result = 0;
    bool inStanza = false;
    char line[128];
    while (const size_t length = edit->ReadLine(line, sizeof line)) {
        if (BeginsWith(line, kStanzaWord)) {
            inStanza = NamesDevice(line, wanted.device);
            if (inStanza) {
                const StanzaOutcome outcome = wanted.write(edit->copy(), wanted.context);
                if (outcome == StanzaOutcome::kWriteFailed) {
                    return -1;
                }
                if (outcome == StanzaOutcome::kRefused) {
                    result = -1;
                }
            }
        } else if (BeginsWith(line, kAutoWord)) {
            inStanza = false;
        }
        if (!inStanza && !edit->WriteLine(line, length)) {
            return -1;
        }
    }
    return edit->ReadFailed() ? -1 : result;
}

int ReplaceStanza(const StanzaEdit &wanted) {
    InPlaceEdit edit(wanted.path, kRules, wanted.origin);
    if (!edit || WriteNewText(&edit, wanted) == -1 || !edit.CopyBack(wanted.reportsCopyBack)) {
        return -1;
    }
    if (!edit.Cut()) {
        TQ_LOG_FOR(wanted.origin, "truncate(%s, %d) error : %m\n", wanted.path,
                   static_cast<int>(edit.length()));
        return -1;
    }
    return edit.Sync() ? 0 : -1;
}

bool WriteDhcpStanza(int out, const char *device, const char *hostname) {
    if (!hostname) {
        return dprintf(out, "iface %s inet dhcp\n", device) >= 0;
    }
    return dprintf(out, "iface %s inet dhcp\n  hostname %s\n\n", device, hostname) >= 0;
}

bool HasUsableGateway(const StaticStanza &stanza, MessageOrigin origin) {
    in_addr address{};
    in_addr netmask{};
    in_addr gateway{};
    ParseDottedAddress(stanza.address, &address);
    ParseDottedAddress(stanza.netmask, &netmask);
    // A gateway that is no address lies in no subnet, not even in one without a mask.
    if (ParseDottedAddress(stanza.gateway, &gateway) &&
        (address.s_addr & netmask.s_addr) == (gateway.s_addr & netmask.s_addr)) {
        return true;
    }
    TQ_LOG_FOR(origin, "Skip invalid gateway - [%s]\n", stanza.gateway);
    return false;
}

bool WriteStaticStanza(int out, const StaticStanza &stanza, bool withGateway) {
    if (!withGateway) {
        return dprintf(out, "iface %s inet %s\n  address %s\n  netmask %s\n\n", stanza.device,
                       stanza.method, stanza.address, stanza.netmask) >= 0;
    }
    return dprintf(out, "iface %s inet %s\n  address %s\n  netmask %s\n  gateway %s\n\n",
                   stanza.device, stanza.method, stanza.address, stanza.netmask,
                   stanza.gateway) >= 0;
}

}  // namespace config
