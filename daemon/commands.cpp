#include "daemon/commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "daemon/os.h"
#include "status/status.h"

void zalk_command::piece(const char *p, size_t n, bool split)
{
	int t = snprintf(text_ + text_len_, sizeof(text_) - text_len_, "%s%.*s", text_len_ ? " " : "", (int)n, p);
	if (t < 0 || (size_t)t >= sizeof(text_) - text_len_) {
		overflow_ = true;
		return;
	}
	text_len_ += (size_t)t;
	do {
		size_t len = n;
		if (split) {
			while (n && *p == ' ')
				p++, n--;
			len = 0;
			while (len < n && p[len] != ' ')
				len++;
			if (!len)
				return;
		}
		if (argc_ == max_words) {
			many_words_ = true;
			return;
		}
		if (words_len_ + len + 1 > sizeof(words_)) {
			overflow_ = true;
			return;
		}
		argv_[argc_++] = (char *)memcpy(words_ + words_len_, p, len);
		words_[words_len_ + len] = 0;
		words_len_ += len + 1;
		p += len, n -= len;
	} while (n);
}

zalk_command &zalk_command::fixed(const char *words)
{
	piece(words, strlen(words), true);
	return *this;
}

zalk_command &zalk_command::name(const char *value, size_t max)
{
	piece(value, strnlen(value, max), false);
	return *this;
}

zalk_command &zalk_command::number(long value)
{
	char buf[24];
	return name(buf, (size_t)snprintf(buf, sizeof(buf), "%ld", value));
}

int zalk_command::run()
{
	// A cut command could do something else than the one asked for:
	// refuse it rather than run a part of it.
	if (overflow_) {
		zlog(LOG_ERR, "Command too long, not run: %.64s...\n", text_);
		return 127;
	}
	if (many_words_) {
		zlog(LOG_ERR, "Command has too many words, not run: %s\n", text_);
		return 127;
	}
	if (!argc_)
		return 127;
	argv_[argc_] = nullptr;
	// Told apart from the tool's own failure by this line: the tool never
	// ran, so there is no status of its own to report.
	int st = os_spawn(argv_);
	if (st < 0) {
		zlog(LOG_ERR, "Could not start command %s: %s\n", text_, strerror(errno));
		return 127;
	}
	return st;
}
