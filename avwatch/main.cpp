#include "avwatch/command_line.h"

int main(int argc, char **argv) {
    return avwatch::run(argc, argv);
}
