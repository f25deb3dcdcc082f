// tqctl finds any unit, sets it up, and sees that it took.
#include "ctl/account.h"
#include "ctl/list.h"
#include "ctl/options.h"
#include "ctl/setup.h"

int main(int argc, char **argv) {
    // In the order of ctl::Command.
    static constexpr void (*kCommands[])(ctl::Session &) = {
        ctl::List, ctl::Show, ctl::Set, ctl::CheckPassword, ctl::ChangePassword};
    ctl::Options options{};
    ReadOptions(argc, argv, &options);
    ctl::Session session(options);
    kCommands[static_cast<int>(options.command)](session);
    session.Flush();
    ctl::End(ctl::kDone);
}
