// blreader.cpp -- placeholder until the trace reader lands.
