#include "jornctl/command_line.h"

int main(int argc, char **argv) {
    return jornctl::run(argc, argv);
}
