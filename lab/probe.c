/*
 * zlab_probe: the ring lab's traffic probe.
 *
 *   zlab_probe send IFACE DSTMAC RATE COUNT BCAST_EVERY
 *   zlab_probe recv IFACE COUNT MAX_SECONDS OUTFILE
 *   zlab_probe flood IFACE HEXFRAME RATE COUNT
 *
 * The sender puts COUNT sequence-numbered Ethernet frames (ether type
 * 0x88b5, local experimental) on IFACE at RATE frames per second, paced on
 * an absolute schedule, and after every BCAST_EVERY-th frame one broadcast
 * frame with its own sequence number; then a few end frames. The receiver
 * takes the kernel's receive time stamp of every frame (SO_TIMESTAMPNS),
 * counts lost, duplicated and reordered frames and broadcast copies, and
 * records every pause of at least 0.3 ms between two data frames with the
 * number of frames lost in it. Both are bounded: the sender by COUNT, the
 * receiver by MAX_SECONDS. Results are JSON.
 *
 * flood puts COUNT copies of one given frame (hex, as it goes on the wire)
 * on IFACE at RATE frames per second, in bursts of 1 ms: the load for
 * measuring how a daemon copes with a flood of its own ring's frames.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <sys/uio.h>
#include <unistd.h>

#define FLOOD_BATCH 64

#define PROBE_ETHERTYPE 0x88b5
#define KIND_DATA 0
#define KIND_BCAST 1
#define KIND_END 2
#define GAP_MIN_NS 300000LL
#define MAX_GAPS 20000

struct probe_hdr {
	char magic[4];
	uint32_t kind;
	uint64_t seq;
	uint64_t sent_ns;
	uint64_t total; /* end frames: data frames sent */
} __attribute__((packed));

static int64_t now_ns(clockid_t c)
{
	struct timespec ts;
	clock_gettime(c, &ts);
	return (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

static int open_sock(const char *ifname, int *ifindex, unsigned char mac[6])
{
	int fd = socket(AF_PACKET, SOCK_RAW, htons(PROBE_ETHERTYPE));
	if (fd < 0) {
		perror("socket");
		exit(2);
	}
	struct ifreq ifr;
	memset(&ifr, 0, sizeof(ifr));
	snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", ifname);
	if (ioctl(fd, SIOCGIFINDEX, &ifr) < 0) {
		perror(ifname);
		exit(2);
	}
	*ifindex = ifr.ifr_ifindex;
	if (ioctl(fd, SIOCGIFHWADDR, &ifr) < 0) {
		perror("SIOCGIFHWADDR");
		exit(2);
	}
	memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
	struct sockaddr_ll sll;
	memset(&sll, 0, sizeof(sll));
	sll.sll_family = AF_PACKET;
	sll.sll_protocol = htons(PROBE_ETHERTYPE);
	sll.sll_ifindex = *ifindex;
	if (bind(fd, (struct sockaddr *)&sll, sizeof(sll)) < 0) {
		perror("bind");
		exit(2);
	}
	return fd;
}

static int send_frame(int fd, const unsigned char dst[6], const unsigned char src[6], uint32_t kind,
		      uint64_t seq, uint64_t total)
{
	unsigned char f[64];
	memset(f, 0, sizeof(f));
	memcpy(f, dst, 6);
	memcpy(f + 6, src, 6);
	f[12] = PROBE_ETHERTYPE >> 8;
	f[13] = PROBE_ETHERTYPE & 0xff;
	struct probe_hdr h;
	memcpy(h.magic, "ZLP1", 4);
	h.kind = kind;
	h.seq = seq;
	h.sent_ns = (uint64_t)now_ns(CLOCK_REALTIME);
	h.total = total;
	memcpy(f + 14, &h, sizeof(h));
	return send(fd, f, 60, 0) == 60 ? 0 : -1;
}

static int do_send(int argc, char **argv)
{
	if (argc != 7) {
		fprintf(stderr, "usage: zlab_probe send IFACE DSTMAC RATE COUNT BCAST_EVERY\n");
		return 2;
	}
	int ifindex;
	unsigned char src[6], dst[6], bc[6];
	int fd = open_sock(argv[2], &ifindex, src);
	if (sscanf(argv[3], "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &dst[0], &dst[1], &dst[2], &dst[3], &dst[4],
		   &dst[5]) != 6) {
		fprintf(stderr, "bad MAC %s\n", argv[3]);
		return 2;
	}
	memset(bc, 0xff, 6);
	double rate = atof(argv[4]);
	uint64_t count = strtoull(argv[5], NULL, 10);
	uint64_t bevery = strtoull(argv[6], NULL, 10);
	if (rate <= 0 || rate > 1e6 || count == 0) {
		fprintf(stderr, "bad rate or count\n");
		return 2;
	}
	/* hrtimer wake-ups close to the schedule */
	prctl(PR_SET_TIMERSLACK, 1UL);
	int64_t period = (int64_t)(1e9 / rate);
	int64_t start = now_ns(CLOCK_MONOTONIC) + 1000000;
	int64_t wall_start = now_ns(CLOCK_REALTIME) + 1000000;
	/* tell the caller the first frame is about to leave */
	fprintf(stderr, "started\n");
	fflush(stderr);
	int64_t max_late = 0;
	uint64_t errors = 0, bseq = 0;
	for (uint64_t i = 0; i < count; i++) {
		int64_t due = start + (int64_t)i * period;
		struct timespec ts = {due / 1000000000LL, due % 1000000000LL};
		while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL) == EINTR)
			;
		int64_t late = now_ns(CLOCK_MONOTONIC) - due;
		if (late > max_late)
			max_late = late;
		if (send_frame(fd, dst, src, KIND_DATA, i, 0))
			errors++;
		if (bevery && (i + 1) % bevery == 0 && send_frame(fd, bc, src, KIND_BCAST, bseq++, 0))
			errors++;
	}
	double secs = (now_ns(CLOCK_MONOTONIC) - start) / 1e9;
	for (int k = 0; k < 5; k++) {
		send_frame(fd, dst, src, KIND_END, 0, count);
		usleep(10000);
	}
	printf("{\"sent\": %llu, \"bcast_sent\": %llu, \"errors\": %llu, \"seconds\": %.6f, "
	       "\"max_late_ms\": %.3f, \"start\": %.9f}\n",
	       (unsigned long long)count, (unsigned long long)bseq, (unsigned long long)errors, secs,
	       max_late / 1e6, wall_start / 1e9);
	return 0;
}

static int do_flood(int argc, char **argv)
{
	if (argc != 6) {
		fprintf(stderr, "usage: zlab_probe flood IFACE HEXFRAME RATE COUNT\n");
		return 2;
	}
	int ifindex;
	unsigned char src[6], f[1514];
	int fd = open_sock(argv[2], &ifindex, src);
	size_t len = 0;
	for (const char *h = argv[3]; h[0] && h[1] && len < sizeof(f); h += 2)
		if (sscanf(h, "%2hhx", &f[len++]) != 1)
			return 2;
	double rate = atof(argv[4]);
	uint64_t count = strtoull(argv[5], NULL, 10);
	if (len < 14 || rate <= 0 || rate > 2e6 || count == 0) {
		fprintf(stderr, "bad frame, rate or count\n");
		return 2;
	}
	prctl(PR_SET_TIMERSLACK, 1UL);
	/* one system call for many copies of the frame, past the qdisc: the
	   sender's own cost must stay far below what it floods */
	int one = 1;
	setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof(one));
	static struct iovec iov;
	static struct mmsghdr batch[FLOOD_BATCH];
	iov.iov_base = f;
	iov.iov_len = len;
	for (unsigned i = 0; i < FLOOD_BATCH; i++) {
		batch[i].msg_hdr.msg_iov = &iov;
		batch[i].msg_hdr.msg_iovlen = 1;
	}
	const int64_t burst_ns = 1000000;
	uint64_t per_burst = (uint64_t)(rate / 1000.0) + 1, sent = 0, errors = 0;
	int64_t start = now_ns(CLOCK_MONOTONIC);
	fprintf(stderr, "started\n");
	fflush(stderr);
	for (uint64_t b = 0; sent < count; b++) {
		int64_t due = start + (int64_t)b * burst_ns;
		struct timespec ts = {due / 1000000000LL, due % 1000000000LL};
		while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL) == EINTR)
			;
		/* as many frames as the schedule owes by now: a late wake-up
		   is made up at once, so the mean rate holds */
		uint64_t owed = (uint64_t)((now_ns(CLOCK_MONOTONIC) - start) / 1e9 * rate) + 1;
		uint64_t due_now = owed < count ? owed : count;
		if (due_now > sent + 4 * per_burst)
			due_now = sent + 4 * per_burst;
		while (sent < due_now) {
			unsigned n = due_now - sent < FLOOD_BATCH ? (unsigned)(due_now - sent) : FLOOD_BATCH;
			int done = sendmmsg(fd, batch, n, 0);
			if (done <= 0) {
				errors++, sent++;
				continue;
			}
			sent += (unsigned)done;
		}
	}
	double secs = (now_ns(CLOCK_MONOTONIC) - start) / 1e9;
	printf("{\"sent\": %llu, \"errors\": %llu, \"seconds\": %.6f, \"rate\": %.0f}\n",
	       (unsigned long long)sent, (unsigned long long)errors, secs, sent / secs);
	return 0;
}

struct gap {
	int64_t start_ns, len_ns;
	uint64_t seq, lost;
};

/* What the receiver has counted so far. */
struct tally {
	uint64_t count;              /* data frames the sender announced */
	unsigned char *seen, *bseen; /* copies seen per sequence number */
	struct gap *gaps;
	uint64_t rx, uniq, dups, reord, brx, buniq, bdups, bmax, ngaps;
	uint64_t total, foreign, highest;
	int64_t first, last, max_gap, first_dup;
	int64_t last_seq;
	int ended;
};

/* The kernel's receive time stamp of a frame, else the time now. */
static int64_t rx_time(struct msghdr *m)
{
	int64_t t = now_ns(CLOCK_REALTIME);
	for (struct cmsghdr *c = CMSG_FIRSTHDR(m); c; c = CMSG_NXTHDR(m, c))
		if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
			struct timespec ts;
			memcpy(&ts, CMSG_DATA(c), sizeof(ts));
			t = (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
		}
	return t;
}

static void count_bcast(struct tally *y, uint64_t seq)
{
	y->brx++;
	if (seq > y->count)
		return;
	if (y->bseen[seq]) {
		y->bdups++;
	} else {
		y->buniq++;
	}
	if (y->bseen[seq] < 255)
		y->bseen[seq]++;
	if (y->bseen[seq] > y->bmax)
		y->bmax = y->bseen[seq];
}

/* A data frame received at t: a duplicate, a late one (reordered), or the
 * next in order, ending a pause that is recorded when it is long enough. */
static void count_data(struct tally *y, uint64_t seq, int64_t t)
{
	y->rx++;
	if (y->seen[seq]) {
		y->dups++;
		if (!y->first_dup)
			y->first_dup = t;
		return;
	}
	y->seen[seq] = 1;
	y->uniq++;
	if (seq > y->highest)
		y->highest = seq;
	if (!y->first)
		y->first = t;
	if ((int64_t)seq < y->last_seq) {
		y->reord++;
		return;
	}
	if (y->last_seq >= 0 && t - y->last >= GAP_MIN_NS && y->ngaps < MAX_GAPS) {
		struct gap *g = &y->gaps[y->ngaps++];
		g->start_ns = y->last;
		g->len_ns = t - y->last;
		g->seq = seq;
		g->lost = seq - y->last_seq - 1;
	}
	if (y->last_seq >= 0 && t - y->last > y->max_gap)
		y->max_gap = t - y->last;
	y->last_seq = seq;
	y->last = t;
}

/* Reads every frame waiting on the socket into the tally; stops early at
 * the sender's end frame. */
static void read_frames(int fd, struct tally *y)
{
	for (;;) {
		unsigned char buf[256];
		char cbuf[256];
		struct iovec iov = {buf, sizeof(buf)};
		struct sockaddr_ll from;
		struct msghdr m = {&from, sizeof(from), &iov, 1, cbuf, sizeof(cbuf), 0};
		ssize_t n = recvmsg(fd, &m, MSG_DONTWAIT);
		if (n < 0)
			return;
		if (from.sll_pkttype == PACKET_OUTGOING)
			continue;
		struct probe_hdr h;
		if (n < 14 + (ssize_t)sizeof(h)) {
			y->foreign++;
			continue;
		}
		memcpy(&h, buf + 14, sizeof(h));
		if (memcmp(h.magic, "ZLP1", 4)) {
			y->foreign++;
			continue;
		}
		int64_t t = rx_time(&m);
		if (h.kind == KIND_END) {
			y->total = h.total;
			y->ended = 1;
			return;
		}
		if (h.kind == KIND_BCAST) {
			count_bcast(y, h.seq);
			continue;
		}
		if (h.kind != KIND_DATA || h.seq >= y->count) {
			y->foreign++;
			continue;
		}
		count_data(y, h.seq, t);
	}
}

static int write_report(const char *path, const struct tally *y)
{
	FILE *o = fopen(path, "w");
	if (!o) {
		perror(path);
		return 2;
	}
	fprintf(o,
		"{\"sent\": %llu, \"received\": %llu, \"unique\": %llu, \"lost\": %llu, \"duplicates\": %llu, "
		"\"reordered\": %llu, \"bcast_received\": %llu, \"bcast_unique\": %llu, "
		"\"bcast_duplicates\": %llu, \"bcast_max_copies\": %llu, \"foreign\": %llu, \"ended\": %d, "
		"\"first\": %.9f, \"last\": %.9f, \"first_duplicate\": %.9f, \"max_gap\": %.9f,\n \"gaps\": [",
		(unsigned long long)y->total, (unsigned long long)y->rx, (unsigned long long)y->uniq,
		(unsigned long long)(y->total - (y->uniq < y->total ? y->uniq : y->total)), (unsigned long long)y->dups,
		(unsigned long long)y->reord, (unsigned long long)y->brx, (unsigned long long)y->buniq,
		(unsigned long long)y->bdups, (unsigned long long)y->bmax, (unsigned long long)y->foreign, y->ended,
		y->first / 1e9, y->last / 1e9, y->first_dup / 1e9, y->max_gap / 1e9);
	for (uint64_t i = 0; i < y->ngaps; i++)
		fprintf(o, "%s\n  {\"start\": %.9f, \"len\": %.9f, \"seq\": %llu, \"lost\": %llu}", i ? "," : "",
			y->gaps[i].start_ns / 1e9, y->gaps[i].len_ns / 1e9, (unsigned long long)y->gaps[i].seq,
			(unsigned long long)y->gaps[i].lost);
	fprintf(o, "]}\n");
	fclose(o);
	return 0;
}

static int do_recv(int argc, char **argv)
{
	if (argc != 6) {
		fprintf(stderr, "usage: zlab_probe recv IFACE COUNT MAX_SECONDS OUTFILE\n");
		return 2;
	}
	int ifindex;
	unsigned char own[6];
	int fd = open_sock(argv[2], &ifindex, own);
	uint64_t count = strtoull(argv[3], NULL, 10);
	double max_secs = atof(argv[4]);
	int on = 1, rcvbuf = 8 << 20;
	setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
	setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof(rcvbuf));
	struct tally y = {.count = count, .total = count, .last_seq = -1};
	y.seen = calloc(count + 1, 1);
	y.bseen = calloc(count + 1, 1);
	y.gaps = calloc(MAX_GAPS, sizeof(*y.gaps));
	if (!y.seen || !y.bseen || !y.gaps)
		return 2;
	int64_t deadline = now_ns(CLOCK_MONOTONIC) + (int64_t)(max_secs * 1e9);
	/* the receiver is ready: the sender may start */
	fprintf(stderr, "ready\n");
	fflush(stderr);
	while (!y.ended) {
		int64_t left = deadline - now_ns(CLOCK_MONOTONIC);
		if (left <= 0)
			break;
		struct pollfd p = {fd, POLLIN, 0};
		int r = poll(&p, 1, (int)(left / 1000000) + 1);
		if (r <= 0)
			continue;
		read_frames(fd, &y);
	}
	return write_report(argv[5], &y);
}

int main(int argc, char **argv)
{
	if (argc > 1 && !strcmp(argv[1], "send"))
		return do_send(argc, argv);
	if (argc > 1 && !strcmp(argv[1], "recv"))
		return do_recv(argc, argv);
	if (argc > 1 && !strcmp(argv[1], "flood"))
		return do_flood(argc, argv);
	fprintf(stderr, "usage: zlab_probe send|recv|flood ...\n");
	return 2;
}
