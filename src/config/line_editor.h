// Replacing, deleting and appending whole lines of a text file by key, in place.
#pragma once

struct COM_ReplaceItem {
    int key_len;  // how many characters of the key count; 0 once the item has been used
    char key[160];
    char line[160];  // the new line without its line end; empty: delete the line
};

struct COM_ReplaceItemList {
    int count;
    int check_only;      // only count, change nothing
    int match_anywhere;  // 0: the key stands at the line's start, letter case ignored; else
                         // anywhere, exact
    int append_missing;  // append the items that matched no line
    COM_ReplaceItem *items;
};

// Each item replaces the first line that it matches. Returns the number of items used, or -1. A
// missing file is created; a failure before the new text is complete empties the file.
int COM_ReplaceItemsInFile(const char *path, COM_ReplaceItemList *list);

namespace config {

// Replaces the first line that begins with "nameserver". Returns 1, 0 when there is no such line,
// or -1.
[[nodiscard]] int ReplaceNameServer(const char *path, const char *server);

}  // namespace config
