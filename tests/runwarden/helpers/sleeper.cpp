// Says it is ready and waits, blocked, until a signal ends it.
#include "common.h"

int main() {
    helper::put("ready\n");
    for (;;)
        ::pause();
}
