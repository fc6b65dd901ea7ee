// Files that hold streams: what they are, and how ffmpeg takes the streams out.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "stream_kind.h"

// kUnknown for what is no container. ADTS is asked for apart: an ID3 tag may stand before it.
StreamKind container_kind(const Window& window);
bool is_adts(std::span<const uint8_t> view);

// A command line for each stream, one of video and one of audio at most, that is named in the file and that
// the library knows.
std::vector<std::string> ffmpeg_lines(StreamKind kind, Window& window);
