// Small helpers shared across the daemon.
#pragma once

#include <cstddef>

// Reads the first line of a file (at most size - 1 characters, line end
// removed). 0 when a line was read, 1 when the file cannot be opened or
// is empty. The path is used as given.
int read_line_file(const char *path, char *buf, size_t size);

// Reads the first line (at most 31 characters) and converts it with
// strtoul base 0. 0 when a line was read, 1 otherwise; *out is written
// only on success.
int read_number_file(const char *path, unsigned long *out);

// Forms a fixed path below the OS root: os_root() followed by the
// formatted text. Returns buf.
char *zalk_path(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// An external command assembled word by word and run directly, never by a
// shell. Fixed texts are split at blanks; a name (an interface name, a
// MAC text, a number) is always exactly one argument, whatever characters
// it holds, so no value can add, drop or shift arguments. Empty pieces give
// no argument (an empty name is still one) but keep their blank in text(),
// the command line as logged.
class zalk_command {
public:
	zalk_command &fixed(const char *words);
	zalk_command &name(const char *value, size_t max = 64);
	zalk_command &number(long value);
	const char *text() const { return text_; }
	// The command's exit status; a command that is too long, has too many
	// words or cannot be started at all is logged and counts as status 127.
	int run();

private:
	void piece(const char *p, size_t n, bool split);
	static constexpr int max_words = 31;
	char text_[256] = "";
	size_t text_len_ = 0;
	char words_[256];
	size_t words_len_ = 0;
	char *argv_[max_words + 1];
	int argc_ = 0;
	bool overflow_ = false;   // the text or its words cut short
	bool many_words_ = false; // more than max_words, the text whole
};
