// Signals that end a run. The first one is only noted: the file system's loops and the tool's own
// look here and stop, so that the report is still made; a second one ends the run at once. Since an
// image is only ever replaced whole, it is the old one then or the new. The flash of a complex is
// not, so while it is changed no signal ends anything.
#pragma once

namespace image {

// Notes SIGINT, SIGTERM and SIGHUP from now on, unless they are ignored. SIGXFSZ is left to the
// errors of writing.
void catch_signals();
// Images are mapped. When somebody cuts one short while it is looked at, the system ends the run by
// SIGBUS; this is called in place of that, and has to end it.
void catch_cut_images(void (*end)());
// Whether one has come.
bool interrupted();
// While one of these lives, no signal ends the run: a second one tells what it waits for, and
// SIGPIPE is noted, too. For what a kill would leave half done.
class held_step {
 public:
  // "the change of the flash"; the text must live on.
  explicit held_step(const char* step);
  ~held_step();
  held_step(const held_step&) = delete;
  held_step& operator=(const held_step&) = delete;
};
// The file that a second signal has to remove; null: none. The text must live on.
void remove_when_ended(const char* path);

}  // namespace image
