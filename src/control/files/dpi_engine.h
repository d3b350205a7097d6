// The kernel's DPI engine, which names applications by what their packets hold.
#pragma once

// Asks the platform once, at the daemon's start, whether the engine is there. If it is, detection
// takes the engine's results from now on and the platform is told to switch it on. Returns whether
// it is.
bool enable_dpi_engine();
