// The rewriting of interfaces and resolver files by both protocols' setups, and of any file by key.
#include <vector>

#include "common/text.h"
#include "config/line_editor.h"
#include "config/network_setup.h"
#include "kirvex/packet.h"
#include "kirvex/set_basic_info.h"
#include "support.h"

static constexpr char kInterfaces[] = "/mtd1/interfaces";
static constexpr char kResolver[] = "/etc/resolv.conf";

template <size_t kSize>
static void Fill(char (&field)[kSize], Input &input) {
    CopyText(field, NextText(input).c_str());
}

static void SetUpNative(Input &input) {
    TQ_Cfg cfg{};
    CopyText(cfg.netfile, kInterfaces);
    CopyText(cfg.dnsfile, kResolver);
    UnitInfo request{};
    Fill(request.dev, input);
    Fill(request.note, input);
    Fill(request.name, input);
    Fill(request.ip, input);
    Fill(request.netmask, input);
    Fill(request.gateway, input);
    Fill(request.dns, input);
    TQ_SetupNetwork(&cfg, &request);
}

static void SetUpKirvex(Input &input) {
    std::vector<uint8_t> settings = input.ConsumeBytes<uint8_t>(kx::kSettingsSize);
    settings.resize(kx::kSettingsSize);
    settings.shrink_to_fit();
    KIRVEX_NetWorkSetup("eth0", kx::SettingsBlock(settings));
}

static void ReplaceItems(Input &input) {
    COM_ReplaceItem items[3] = {};
    COM_ReplaceItemList list{input.ConsumeIntegralInRange(-1, 3), input.ConsumeBool(),
                             input.ConsumeBool(), input.ConsumeBool(), items};
    for (COM_ReplaceItem &item : items) {
        item.key_len = input.ConsumeIntegral<int>();
        // Texts that fill their fields have no terminator.
        const std::string key = NextText(input);
        const std::string line = NextText(input);
        key.copy(item.key, sizeof item.key);
        line.copy(item.line, sizeof item.line);
    }
    COM_ReplaceItemsInFile(kResolver, &list);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    WriteFile(kInterfaces, NextText(input));
    WriteFile(kResolver, NextText(input));
    switch (input.ConsumeIntegralInRange(0, 2)) {
        case 0:
            SetUpNative(input);
            break;
        case 1:
            SetUpKirvex(input);
            break;
        default:
            ReplaceItems(input);
            break;
    }
    return 0;
}
