// Any datagram on the link monitor's rtnetlink socket: parsed without
// reading outside it, and what it reports about ring ports handled by the
// hello and ring logic. The first byte picks hello per ring port and the
// role; the rest is the datagram.
#include "tests/fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < 1)
		return 0;
	fuzz::Harness &h = fuzz::ring_for(data[0]);
	zalkv2_instance &in = instances[0];
	in.port[PORT_A].hello_enable = data[0] & 1;
	in.port[PORT_B].hello_enable = (data[0] >> 1) & 1;
	fake::recvmsg_queue.push_back({std::vector<uint8_t>(data + 1, data + size), 0});
	link_listen(&link_rth, netlink_listen, nullptr);
	fake::recvmsg_queue.clear();
	h.dispatch_checked();
	return 0;
}
