// proclib - the shared library the loadable-library tests load. Built twice: as it stands, and
// with PROCLIB_UNRESOLVED, which adds a call to a function that no library defines, so that a
// load that resolves everything at once fails and one that defers functions doesn't.
extern "C" {

__attribute__((visibility("default"))) int proclibAdd(int a, int b) {
    return a + b;
}
__attribute__((visibility("default"))) const char* proclibName() {
    return "proclib";
}

#ifdef PROCLIB_UNRESOLVED
int proclibNowhere(int);
__attribute__((visibility("default"))) int proclibCallsNowhere(int a) {
    return proclibNowhere(a);
}
#endif
}
