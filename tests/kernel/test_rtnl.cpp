// The rtnetlink transport against the real kernel, in the test's own
// network namespace: opening, acks, kernel errors with and without the
// kernel's explanation, stale answers.
//
// Log lines go through the real syslog(); the tests open the log with
// LOG_PERROR and read them back from standard error.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "bridge/rtnl.h"
#include "tests/kernel/support/netns.h"

namespace {

struct LinkReq {
	nlmsghdr n;
	ifinfomsg i;
	char buf[256];
};

// RTM_SETLINK of the MTU of one interface.
LinkReq mtu_request(int ifindex, uint32_t mtu)
{
	LinkReq req{};
	req.n.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
	req.n.nlmsg_type = RTM_SETLINK;
	req.n.nlmsg_flags = NLM_F_REQUEST;
	req.i.ifi_family = AF_UNSPEC;
	req.i.ifi_index = ifindex;
	addattr32(&req.n, sizeof(req), IFLA_MTU, mtu);
	return req;
}

class Rtnl : public ::testing::Test {
protected:
	static void SetUpTestSuite()
	{
		// Keep the machine's log out of it, should it have a socket here.
		sh("[ -S /dev/log ] && mount --bind /dev/null /dev/log");
		openlog("zalk-kernel-test", LOG_PERROR, LOG_USER);
	}

	void SetUp() override
	{
		ASSERT_EQ(sh("ip link add zt0 type veth peer name zt0p && ip link set zt0 up && ip link set zt0p up"), 0);
		ifindex = (int)if_nametoindex("zt0");
		ASSERT_GT(ifindex, 0);
		ASSERT_EQ(rtnl_open(&rth, 0), 0);
	}

	void TearDown() override
	{
		rtnl_close(&rth);
		sh("ip link del zt0 2>/dev/null");
	}

	// Runs one request and returns its result; what was logged lands in *log.
	int talk(LinkReq &req, std::string *log)
	{
		testing::internal::CaptureStderr();
		int r = rtnl_talk(&rth, &req.n, nullptr);
		*log = testing::internal::GetCapturedStderr();
		return r;
	}

	rtnl_handle rth{};
	int ifindex = 0;
};

TEST_F(Rtnl, OpenGivesABoundRouteSocket)
{
	EXPECT_GT(rth.fd, 0);
	EXPECT_EQ(rth.local.nl_family, AF_NETLINK);
	EXPECT_NE(rth.local.nl_pid, 0u); // the kernel's port id, read back
	EXPECT_EQ(rth.local.nl_groups, 0u);
	EXPECT_LE(std::abs((long)rth.seq - (long)time(nullptr)), 2);

	// A handle subscribed to link notifications hears a new link.
	rtnl_handle mon{};
	ASSERT_EQ(rtnl_open(&mon, RTMGRP_LINK), 0);
	EXPECT_EQ(mon.local.nl_groups, (unsigned)RTMGRP_LINK);
	ASSERT_EQ(sh("ip link add zt9 type veth peer name zt9p"), 0);
	char buf[8192];
	bool heard = false;
	for (int i = 0; i < 20 && !heard; i++) {
		ssize_t n = recv(mon.fd, buf, sizeof(buf), MSG_DONTWAIT);
		if (n < 0) {
			usleep(10000);
			continue;
		}
		int left = (int)n;
		for (auto *h = (nlmsghdr *)buf; NLMSG_OK(h, left); h = NLMSG_NEXT(h, left))
			heard |= h->nlmsg_type == RTM_NEWLINK &&
				 ((ifinfomsg *)NLMSG_DATA(h))->ifi_index == (int)if_nametoindex("zt9");
	}
	EXPECT_TRUE(heard);
	sh("ip link del zt9");
	rtnl_close(&mon);
	EXPECT_EQ(mon.fd, -1);
	rtnl_close(&mon); // twice is harmless
}

TEST_F(Rtnl, AckedRequestIsNumberedAndApplied)
{
	uint32_t seq = rth.seq;
	LinkReq req = mtu_request(ifindex, 1400);
	std::string log;
	EXPECT_EQ(talk(req, &log), 0);
	EXPECT_EQ(req.n.nlmsg_seq, seq + 1);
	EXPECT_EQ(req.n.nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
	EXPECT_EQ(log, "");
	EXPECT_EQ(sh_out("cat /sys/class/net/zt0/mtu"), "1400\n");

	// The same buffer sent again gets the next number.
	EXPECT_EQ(talk(req, &log), 0);
	EXPECT_EQ(req.n.nlmsg_seq, seq + 2);
}

TEST_F(Rtnl, KernelErrorsAreReportedAndNegative)
{
	// Below the device minimum: the kernel says why in an extended ack.
	LinkReq req = mtu_request(ifindex, 10);
	std::string log;
	EXPECT_EQ(talk(req, &log), -EINVAL);
	EXPECT_NE(log.find("RTNETLINK answers: Invalid argument\n"), std::string::npos) << log;
	EXPECT_NE(log.find("Error: mtu less than device minimum.\n"), std::string::npos) << log;
	EXPECT_LT(log.find("RTNETLINK answers"), log.find("Error: "));
	EXPECT_EQ(sh_out("cat /sys/class/net/zt0/mtu"), "1500\n");

	// No such interface: a plain error without explanation.
	req = mtu_request(99999, 1400);
	EXPECT_EQ(talk(req, &log), -ENODEV);
	EXPECT_NE(log.find("RTNETLINK answers: No such device\n"), std::string::npos) << log;
	EXPECT_EQ(log.find("Error:"), std::string::npos) << log;
}

TEST_F(Rtnl, AnswersToOtherRequestsArePassedOver)
{
	// A failing request left unanswered on the socket: its error ack
	// arrives first and must not be taken for the next request's answer.
	LinkReq stale = mtu_request(ifindex, 10);
	stale.n.nlmsg_flags |= NLM_F_ACK;
	stale.n.nlmsg_seq = rth.seq + 1000;
	sockaddr_nl kernel{};
	kernel.nl_family = AF_NETLINK;
	ASSERT_GT(sendto(rth.fd, &stale, stale.n.nlmsg_len, 0, (sockaddr *)&kernel, sizeof(kernel)), 0);

	LinkReq req = mtu_request(ifindex, 1300);
	std::string log;
	EXPECT_EQ(talk(req, &log), 0);
	EXPECT_EQ(log, "");
	EXPECT_EQ(sh_out("cat /sys/class/net/zt0/mtu"), "1300\n");
}

} // namespace
