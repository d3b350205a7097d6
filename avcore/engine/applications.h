// `avcore applications`: what a rule may say to find what the DPI engine names.
#pragma once

namespace avcore {

// A row each with the ids and names of application and category, on standard output. Returns the
// exit status; throws std::runtime_error.
int list_applications();

} // namespace avcore
