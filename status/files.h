// The status file tree /var/run/zalkv2/<ring id>/[<port>/] (names and
// value texts in status/schema.h).
#pragma once

int zalk_status_setup(int ins);
void zalk_set_status(int ins);
// A link report: the port's link, logical_state and physical_state files,
// written at once, before the ring logic reacts to the report.
void zalk_set_port_status(int ins, int port);
void zalk_remove_status(int ins);
// The file "missing" of ring ring_id: the interfaces the ring waits for
// while there are any; removed when the text is empty.
void zalk_set_missing(int ring_id, const char *missing);
int remove_tree(const char *path);
int zalk_port_logical_state(int ins, int port);
int write_text_file(const char *dir, const char *name, const char *text);
int write_number_file(const char *dir, const char *name, long number);

// While a batch lives (the handling of one event), the files of a ring
// state change (zalk_set_status) are not written at once but when the
// outermost batch ends, from what the instance holds then: after the
// frames the event sends. Batches nest.
class zalk_status_batch {
public:
	zalk_status_batch();
	~zalk_status_batch();
	zalk_status_batch(const zalk_status_batch &) = delete;
	zalk_status_batch &operator=(const zalk_status_batch &) = delete;
};
// Writes what the batches have left to write.
void zalk_status_flush();
