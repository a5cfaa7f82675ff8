// Hello link qualification: a ring port is trusted only once the
// neighbour's Hello says that it hears this switch, and loses that trust
// after three hello ticks without a new Hello.
#include "frames/hello.h"

#include <cstring>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "status/names.h"
#include "status/status.h"

namespace {

// Hello status bits.
constexpr uint16_t HELLO_STATUS_Q = 0x0001;          // we hear the neighbour
constexpr uint16_t HELLO_STATUS_FORWARDING = 0x0004; // our port forwards

constexpr size_t HELLO_CODE = ZALK_HELLO - 1; // its place in zalk_frame_types

bool hello_runs(const zalkv2_port &port) { return port.hello_enable != 0 && zalkv2_port_configured(port); }

// Link events of a port: port A uses the A codes, port B the B codes.
uint32_t link_down_event(int p) { return p == PORT_A ? LINKA1_0 : LINKB1_0; }
uint32_t link_up_event(int p) { return p == PORT_A ? LINKA0_1 : LINKB0_1; }

} // namespace

void zalkv2_hello_timers_init()
{
	for (auto &ins : instances) {
		for (auto &port : ins.port) {
			ev_init(&port.hello_timer, send_zalk_trig);
			port.hello_timer.data = &port;
			memset(port.remote_bridge_id, 0, sizeof(port.remote_bridge_id));
		}
	}
}

void zalkv2_hello_init(int ins)
{
	zalkv2_instance &inst = instances[ins];
	for (int p = PORT_A; p <= PORT_B; p++) {
		zalkv2_port &port = inst.port[p];
		if (!hello_runs(port))
			continue;
		port.hello_timer.data = &port;
		port.hello_timer.repeat = port.hello_time;
		hello_set_state(ins, p, HELLO_PHY_DOWN);
		port.hello_miss_limit = HELLO_MISS_LIMIT;
	}
}

void zalkv2_hello_start(int ins, struct ev_loop *loop)
{
	for (auto &port : instances[ins].port)
		if (hello_runs(port))
			ev_timer_again(loop, &port.hello_timer);
}

void zalkv2_hello_stop(int ins, struct ev_loop *loop)
{
	for (auto &port : instances[ins].port)
		ev_timer_stop(loop, &port.hello_timer);
}

void hello_set_state(int ins, int p, int32_t state)
{
	zalkv2_port &port = instances[ins].port[p];
	if (state == port.hello_state)
		return;

	switch (state) {
	case HELLO_PHY_DOWN:
	case HELLO_NO_RESPONSE:
		sm_send_event((uint32_t)ins, link_down_event(p), nullptr, 0);
		break;
	case HELLO_QUALIFIED:
		sm_send_event((uint32_t)ins, link_up_event(p), nullptr, 0);
		break;
	default:
		break;
	}

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - %s - %s -> %s\n", "hello_set_state", port.name,
		     zalk_hello_state_name(port.hello_state), zalk_hello_state_name(state));
	port.hello_state = state;
}

void send_zalk_trig(struct ev_loop *loop, ev_timer *w, int)
{
	auto *port = static_cast<zalkv2_port *>(w->data);
	zalkv2_instance &inst = *port->instance;
	const int ins = inst.index;
	const int p = (int)port->port_index;

	// Decide on the state the tick started with, even after a link-down
	// below has already moved it.
	const int32_t s = port->hello_state;

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - ins:%d port:%s\n", "send_zalk_trig", ins, port->name);

	uint8_t *frame = inst.tpl_hello;
	uint16_t status = 0;
	if (port->hello_resp != 0)
		status |= HELLO_STATUS_Q;
	if (port->state == PORT_FORWARDING)
		status |= HELLO_STATUS_FORWARDING;
	frame[tx_off::TYPE] = zalk_frame_types[HELLO_CODE];
	zalk_put_be16(frame + tx_off::HELLO_INTERVAL, (uint16_t)port->hello_time_ms);
	zalk_put_be16(frame + tx_off::STATUS, status);
	zalkv2_own_bridge_id(ins, frame + tx_off::HELLO_SENDER);

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - %s - Call zalkv2_send ins: %d port: %s\n", "send_zalk_trig",
		     "send_zalk_trig", ins, port->name);
	packet_send(port, frame, ZALK_FRAME_LEN);

	if (port->operstate != ZALK_OPER_UP)
		hello_set_state(ins, p, HELLO_PHY_DOWN);

	switch (s) {
	case HELLO_PHY_DOWN:
		if (port->operstate == ZALK_OPER_UP)
			hello_set_state(ins, p, HELLO_NO_RESPONSE);
		port->hello_miss = 0;
		break;
	case HELLO_NO_RESPONSE:
		if (port->hello_rx != port->hello_rx_seen) {
			port->hello_rx_seen = port->hello_rx;
			if (port->hello_resp == 2)
				hello_set_state(ins, p, HELLO_QUALIFIED);
		}
		break;
	case HELLO_NOT_QUALIFIED:
		// Named but never entered; nothing moves a port out of it but a
		// link-down.
		break;
	case HELLO_QUALIFIED:
		if (port->hello_rx != port->hello_rx_seen) {
			// Any new Hello keeps the qualification; its Q bit is not
			// looked at again.
			port->hello_miss = 0;
			port->hello_rx_seen = port->hello_rx;
		} else if (++port->hello_miss >= port->hello_miss_limit) {
			hello_set_state(ins, p, HELLO_NO_RESPONSE);
			port->hello_miss = 0;
		}
		break;
	default:
		zlog(LOG_ERR, "Invalid state\n");
		hello_set_state(ins, p, HELLO_PHY_DOWN);
		break;
	}

	// Tick fast while a qualified port misses Hellos, so a silent
	// neighbour is noticed within hello_time + 0.1 s.
	w->repeat = port->hello_miss != 0 ? HELLO_FAST_RETRY : port->hello_time;
	ev_timer_again(loop, w);
}

int is_hello_pkt(int ins, int p, const zalkv2_rx_frame &f)
{
	if (f.type != zalk_frame_types[HELLO_CODE])
		return 0;
	zalkv2_instance &inst = instances[ins];
	zalkv2_port &port = inst.port[p];

	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - %s - ins:%d port:%s\n", "is_hello_pkt", "is_hello_pkt", ins, port.name);
	if (!port.hello_enable)
		return 0;

	port.hello_rx++;
	port.hello_resp = (f.status & HELLO_STATUS_Q) ? 2 : 1;

	// A neighbour with another hello time is not refused; the status
	// report shows the interval it uses.
	inst.rx_errors[p].rx_wrong_hello_time = f.interval == port.hello_time_ms ? 0 : f.interval;

	memcpy(port.remote_bridge_id, f.sender, sizeof(port.remote_bridge_id));

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - %s - id:%d status:0x%x(Q:%s) interval: %d\n", "is_hello_pkt",
		     "is_hello_pkt", ins, f.status, (f.status & HELLO_STATUS_Q) ? "1" : "0", f.interval);
	return 1;
}
