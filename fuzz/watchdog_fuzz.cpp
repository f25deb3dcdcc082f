// The watchdog's folder with one request file of any name and content. What falls due finds no init
// in this private host, and no process can be made for a command.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "config/watchdog.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static constexpr char kFolder[] = "/tmp/watchdog";
    mkdir(kFolder, 0755);
    Input input(data, size);
    const std::string kind = input.PickValueInArray({"RERUN", "REBOOT", "SHUTDOWN"});
    std::string suffix = NextText(input).substr(0, 200);
    std::replace(suffix.begin(), suffix.end(), '/', '_');
    const std::string path = std::string(kFolder) + "/" + kind + suffix.c_str();
    const std::string text = NextText(input);
    WriteFile(path.c_str(), text);
    config::WatchdogFolder(kFolder).Scan();
    unlink(path.c_str());
    TQ_WatchdogRerun(text.c_str());
    return 0;
}
