#include "jornctl/command_line.h"
#include "shared/out_of_memory.h"

int main(int argc, char **argv) {
    end_where_memory_does("jornctl");
    return jornctl::run(argc, argv);
}
