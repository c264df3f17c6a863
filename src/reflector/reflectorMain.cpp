// reflectorMain.cpp -- placeholder process entry.
#include "reflector.h"
#include "trace.h"

int main() { TRACE(TRACE_INIT, "INIT: placeholder %u", 1u); return 0; }
