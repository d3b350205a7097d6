// Where the gate's maps and programs are pinned: PINS/LAYOUT/MAP and PINS/LAYOUT/programs/ID, in a
// file system of the kernel's. What is attached is told by its number alone; opened by that it may
// be with CAP_SYS_ADMIN, by its pin with none of it.
#pragma once

#include "shared/unique_fd.h"

#include <cstdint>
#include <string>

namespace avcore {

std::string layout_folder(const std::string &pins); // of this build
std::string pin_of(const std::string &pins, const std::string &map);
std::string program_folder(const std::string &pins); // of this build
std::string pin_of(const std::string &pins, uint32_t program_id);

bool has_other_layouts(const std::string &pins);

// By its pin, of whichever layout. Not valid where there is none.
unique_fd pinned_program(const std::string &pins, uint32_t id);

// Makes the folder, and mounts a bpffs at `pins` where there is none. Throws std::runtime_error.
void make_pins(const std::string &pins);

// One process at a time sets a gate up or takes it down: it holds the folder that the pins' own
// lies in. Not the pins' own: a mount that is open can't go. Not valid where there is no such
// folder. Throws std::runtime_error.
unique_fd lock_beside(const std::string &pins);
void make_folder_beside(const std::string &pins); // throws std::runtime_error

// Removes the folder of this layout, those of others, or all, and unless it were others then the
// mount if make_pins() made it and nothing else is in it. Does nothing where there is none.
enum class layouts { all, own, others };
void remove_pins(const std::string &pins, layouts which);

} // namespace avcore
