// main.cpp -- placeholder until dhcpv6-cli lands.
int main() { return 1; }
