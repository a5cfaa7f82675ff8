// External commands (`tc`, `bridge`), run directly, never by a shell.
#pragma once

#include <cstddef>

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
