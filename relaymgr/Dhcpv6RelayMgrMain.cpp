// Dhcpv6RelayMgrMain.cpp -- process start-up of the DHCPv6 relay manager.
