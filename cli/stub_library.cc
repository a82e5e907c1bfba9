// Built under the soname of a library the tool opens on first use, with none
// of its functions: on LD_LIBRARY_PATH it makes that library unusable, so the
// tests can check how the tool fails without it.
int zorvStubLibraryMarker = 0;
