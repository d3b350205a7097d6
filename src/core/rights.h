// The rights of root's that the daemon runs with. What a device's platform libraries need in this
// process only their makers know, so there it keeps all of them (CMakeLists.txt).
#pragma once

// Called when the capture and the bus are open: what comes from the network finds no right but that
// to open the capture again. The shell's commands have no more; they work on files of the user's.
void give_up_rights();
