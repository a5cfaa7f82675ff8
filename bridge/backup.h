// The two ring ports of an instance as each other's backup port.
#pragma once

int zalkv2_setup_buddy_ports(int ins, int add);
