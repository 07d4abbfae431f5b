// What long operations call from step to step: the poll for a request to stop, and the offers of
// the processor to other work.
#pragma once

// Returns 0: nobody can request an interruption of this process's work.
int intr_req();

// Scheduling points of the embedded system; one thread has nobody to give way to.
void process_suspend();
void process_may_suspend();
