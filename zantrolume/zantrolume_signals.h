// Signals that end a run end it only between two steps: once the run holds the window, they are
// noted, the operation or check in progress is finished, and then they do what they would have
// done. What a kill in the middle would leave on flash is what a power cut leaves.
#pragma once

// Notes SIGINT, SIGTERM, SIGHUP and SIGPIPE from now on; one that was ignored stays ignored.
void zantrolume_hold_signals();

// A point between two steps: a noted signal ends the process here. `next`, which must last, says
// what is begun now; a second SIGINT tells it to the user.
void zantrolume_next_step(const char* next);

// Writes out what was printed and gives the signals back as they were. A noted one ends the process
// here. It happens by itself when the process ends.
void zantrolume_release_signals();
