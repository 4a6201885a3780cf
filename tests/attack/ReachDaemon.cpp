// Connects to the daemon that the library finds by itself; the exit status is the library's code.
#include <corvid/corvid.hpp>

int main() { return corvid::client::Session().connect().code(); }
