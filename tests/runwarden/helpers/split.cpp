// Writes "a" plus the first byte of "é" (C3 A9), then after a pause the second byte plus "b",
// then after another pause a plain "ok" line.
#include "common.h"

int main() {
    helper::put("a\xC3");
    helper::pause(300);
    helper::put("\xA9"
                "b");
    helper::pause(300);
    helper::put("ok\n");
    return 0;
}
