// blcat.cpp -- placeholder.
int main() { return 1; }
