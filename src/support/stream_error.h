// A malformed message from the client: the one exception of the bridge's
// readers. The thrown object is a pointer to the text, so a catcher writes
// catch (const char* text).
#pragma once

namespace update {

inline constexpr const char* command_stream_error = "CommandStreamError";

[[noreturn]] inline void raise_stream_error() { throw command_stream_error; }

}  // namespace update
