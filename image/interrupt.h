// Signals that end a run. The first one is only noted: the file system's loops and the tool's own
// look here and stop, so that the report is still made; a second one ends the run at once. Since an
// image is only ever replaced whole, it is the old one then or the new.
#pragma once

namespace image {

// Notes SIGINT, SIGTERM and SIGHUP from now on, unless they are ignored.
void catch_signals();
// Whether one has come.
bool interrupted();
// The file that a second signal has to remove; null: none. The text must live on.
void remove_when_ended(const char* path);

}  // namespace image
