// What tqctl reads from strangers and prints: answers in both protocols, whole lists, and the
// table, the columns and the JSON made of them, of which nothing may steer a terminal.
#include <cstdlib>

#include "common/owners.h"
#include "ctl/print.h"
#include "support.h"

static const ctl::Links kNoLinks{};

static void TakeUnit(ctl::Unit &unit, void *context) {
    unit.Place(kNoLinks, nullptr);
    static_cast<ctl::Survey *>(context)->units().Take(unit);
}

// Prints to memory, and requires that every line is one of text.
template <class Print>
static void CheckPrinted(Print print) {
    char *text = nullptr;
    size_t size = 0;
    FILE *before = stdout;
    stdout = open_memstream(&text, &size);
    print();
    fclose(stdout);
    stdout = before;
    const HeapBlock<char> owner(text);
    for (size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        Require(byte == '\n' || byte == '\t' || (byte >= ' ' && byte != 0x7F));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ctl::Survey survey(kNoLinks, false);
    Input input(data, size);
    ctl::Unit unit;
    if (input.ConsumeBool()) {
        const std::string texts = input.ConsumeRemainingBytesAsString();
        const std::string package = Package("Moravelle,01," + texts);
        ctl::ReadPackage(package.data(), package.size(), TakeUnit, &survey);
        ctl::ReadPackage(texts.data(), texts.size(), TakeUnit, &survey);
    } else {
        const std::string reply = input.ConsumeRemainingBytesAsString();
        if (ctl::ReadSearchReply({reinterpret_cast<const uint8_t *>(reply.data()), reply.size()},
                                 &unit)) {
            TakeUnit(unit, &survey);
        }
    }
    survey.units().Sort();
    CheckPrinted([&] { ctl::PrintTable(survey, static_cast<int>(size % 200)); });
    if (survey.units().count() == 0) {
        return 0;
    }
    const ctl::Unit &first = *survey.units().begin();
    CheckPrinted([&] { ctl::PrintPlain(first); });
    CheckPrinted([&] { ctl::PrintUnit(first); });
    CheckPrinted([&] {
        printf("%s\n",
               ctl::DescribeSettings(first.ip, first.prefix, first.gateway, first.dns).text);
    });
    CheckPrinted([&] { ctl::PrintJson(survey, &first, 1, nullptr); });
    CheckPrinted([&] { ctl::PrintFormat("${name}\\t${note}", first); });
    return 0;
}
