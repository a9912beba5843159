// Chassis.cpp -- placeholder until the chassis services land.
#include "Chassis.h"
int qorChassisStart(const ChassisOptions&) { return -1; }
