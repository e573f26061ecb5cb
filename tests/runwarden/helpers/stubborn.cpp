// Ignores SIGTERM, says so, and waits forever: only SIGKILL ends it.
#include "common.h"

#include <csignal>

int main() {
    std::signal(SIGTERM, SIG_IGN);
    helper::put("ready\n");
    for (;;)
        ::pause();
}
