// The progress bar both programs draw on a terminal while a command runs.
#pragma once
#include <cstdint>
#include <string>

namespace client {

// "1.5 MiB", "320 B": a size for people.
std::string human_size(uint64_t bytes);

// One redraw of the bar: back to the start of the line, the stage, the bar
// and share of done in total (done above total counts as total), the two
// sizes and what is being worked on.
std::string progress_line(const std::string& stage, uint64_t done, uint64_t total, const std::string& what);

}  // namespace client
