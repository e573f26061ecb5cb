// Prints each of its arguments on a line of its own, in one write.
#include "common.h"

#include <string>

int main(int argc, char **argv) {
    std::string out;
    for (int i = 1; i < argc; ++i) {
        out += argv[i];
        out += '\n';
    }
    helper::put(out);
    return 0;
}
