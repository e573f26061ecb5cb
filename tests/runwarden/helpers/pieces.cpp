// Prints three lines as three separate writes with pauses between them.
#include "common.h"

int main() {
    helper::put("one\n");
    helper::pause(300);
    helper::put("two\n");
    helper::pause(300);
    helper::put("three\n");
    return 0;
}
