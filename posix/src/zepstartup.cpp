// zepstartup.cpp - the start-up pass and the end-of-process pass of the library.
//
// There is no initialisation call: the dynamic loader runs zepStartupPass when libzep.so is
// loaded into a process and zepEndPass when it is unloaded or the process exits.

static Bool s_startupPending = 1;

__attribute__((constructor(101))) static void zepStartupPass() {
    // Cleared first, so the pass runs once even if the constructor should run again.
    if (!s_startupPending) return;
    s_startupPending = 0;

    // step 1: latch tuning
    // step 2: tick register test
    // step 3: memory debugging
    // step 4: platform flags
}
