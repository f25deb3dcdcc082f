#include "config/line_editor.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

#include "common/text.h"
#include "config/in_place_edit.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr MessageOrigin kOrigin = TQ_ORIGIN("COM_ReplaceItemsInFile");
static constexpr config::InPlaceEditRules kRules{"/var/COM_XXXXXX", "fail", true, true};

static bool Matches(const COM_ReplaceItem &item, const char *line, bool anywhere) {
    const size_t length = std::min(static_cast<size_t>(item.key_len), sizeof item.key - 1);
    if (!anywhere) {
        return strncasecmp(line, item.key, length) == 0;
    }
    char key[sizeof item.key];
    CopyText(key, length + 1, item.key);
    return strstr(line, key) != nullptr;
}

static COM_ReplaceItem *FindItem(std::span<COM_ReplaceItem> items, const char *line,
                                 bool anywhere) {
    for (COM_ReplaceItem &item : items) {
        if (item.key_len > 0 && Matches(item, line, anywhere)) {
            return &item;
        }
    }
    return nullptr;
}

// Makes the item's line, with a line end, of `line`; nothing when the item deletes. Returns its
// length.
static size_t TakeItemLine(const COM_ReplaceItem &item, char (&line)[256]) {
    static_assert(sizeof item.line < sizeof line - 1);
    const size_t length = strnlen(item.line, sizeof item.line);
    memcpy(line, item.line, length);
    if (length > 0) {
        line[length] = '\n';
    }
    return length > 0 ? length + 1 : 0;
}

// Writes the file's new text to the copy. Returns the number of items used, or -1.
static int WriteNewText(config::InPlaceEdit *edit, const COM_ReplaceItemList &list) {
    const std::span<COM_ReplaceItem> items(list.items,
                                           static_cast<size_t>(std::max(list.count, 0)));
    int used = 0;
    char line[256];
    while (size_t length = edit->ReadLine(line, sizeof line)) {
        COM_ReplaceItem *item = FindItem(items, line, list.match_anywhere != 0);
        if (item) {
            item->key_len = 0;
            ++used;
            length = TakeItemLine(*item, line);
        }
        if (!list.check_only && !edit->WriteLine(line, length)) {
            return -1;
        }
    }
    if (edit->ReadFailed()) {
        return -1;
    }
    for (const COM_ReplaceItem &item : items) {
        if (!list.append_missing || item.key_len <= 0 || item.line[0] == '\0') {
            continue;
        }
        if (!edit->WriteLine(line, TakeItemLine(item, line))) {
            return -1;
        }
        ++used;
    }
    return used;
}

int COM_ReplaceItemsInFile(const char *path, COM_ReplaceItemList *list) {
    config::InPlaceEdit edit(path, kRules, kOrigin);
    int result = edit ? WriteNewText(&edit, *list) : -1;
    if (list->check_only || edit.ReadFailed()) {
        return result;
    }
    if (result != -1 && !edit.CopyBack(true)) {
        result = -1;
    }
    // The length is still 0 when the new text never got complete: then the file is emptied, so that
    // nobody takes half a text for the whole.
    if (!edit.Cut()) {
        TQ_LOG("truncate(%s) error : %m\n", path);
    }
    return result == -1 || edit.Sync() ? result : -1;
}

int config::ReplaceNameServer(const char *path, const char *server) {
    static constexpr char kKey[] = "nameserver";
    COM_ReplaceItem item{};
    item.key_len = sizeof kKey - 1;
    CopyText(item.key, kKey);
    snprintf(item.line, sizeof item.line, "%s %s", kKey, server);
    COM_ReplaceItemList list{1, 0, 0, 0, &item};
    return COM_ReplaceItemsInFile(path, &list);
}
