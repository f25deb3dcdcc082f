#include "discovery/list_reply.h"

#include "common/buffer.h"
#include "discovery/client.h"
#include "discovery/package.h"
#include "frame/message.h"
#include "unit/unit_info.h"

using discovery::ListReply;

static constexpr char kSource[] = "TQ";
static constexpr MessageOrigin kOrigin = TQ_ORIGIN("TQ_Server_MORA");

// The reply reports this unit as it is on its first interface, wherever the request came in.
static constexpr char kListDevice[] = "eth0";

// Appends the own record to the list and encodes the texts of all. The list grows by one.
static ListReply BuildListReply(UnitInfo **list, int count, const UnitInfo &own) {
    ListReply reply;
    if (!AppendRecord(list, count, own)) {
        return reply;
    }
    const size_t records = static_cast<size_t>(count) + 1;
    const HeapBlock<char> texts = NewBlock(records * discovery::kUnitTextSize);
    if (!texts) {
        return reply;
    }
    size_t length = 0;
    for (size_t i = 0; i < records; ++i) {
        length += discovery::WriteUnitText(TQ_PACKAGE_UNIT_INFO, (*list)[i], texts.get() + length);
    }
    reply.text = NewBlock(Base64TextSize(length));
    if (reply.text) {
        reply.length = discovery::EncodeTexts({texts.get(), length}, reply.text.get());
    }
    return reply;
}

ListReply discovery::DiscoverForList(void (*logCount)(int count)) {
    UnitInfo own{};
    COM_GetUnitInfo(&own, kListDevice);
    UnitInfo *list = nullptr;
    const int count = TQ_GetAllUnit(nullptr, &list, nullptr, 0);
    ListReply reply;
    if (count < 1) {
        TQ_LOG_FOR(kOrigin, "No devices found (%d)\n", count);
    } else {
        logCount(count);
        reply = BuildListReply(&list, count, own);
    }
    free(list);
    return reply;
}
