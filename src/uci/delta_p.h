/*
 * The format of staged changes: one change on each line, and marks of commits.
 * Builds on words and places.
 */
#ifndef UCI_DELTA_P_H
#define UCI_DELTA_P_H

#include "text_p.h"
#include "words_p.h"

/* Names and value point into the text that was read. */
struct delta_line
{
    enum uci_command cmd;
    const char* section;
    const char* option;
    const char* value;
};

enum delta_result { DELTA_END, DELTA_LINE, DELTA_REFUSED };

/* Reads the next change of a text, which is overwritten. Marks of commits are skipped. */
enum delta_result delta_next(struct words* words, const char* package, struct delta_line* line);

/* Appends a change. Its names and value have to be such that can be staged, see is_delta_package() and the others.
 */
void delta_write(
    struct text* text, const struct uci_package* p, enum uci_command cmd, const char* section, const char* option,
    const char* value);

/*
 * The size of a text, which is overwritten, without an incomplete line at its end: one with an open quote or a
 * trailing backslash, which would swallow the lines that are appended.
 */
size_t delta_whole_size(struct text* text);

/* Whether the latest line is incomplete: it would continue after the end of the text. */
bool delta_is_torn(const struct words* words);

/* What the mark of a commit begins with, see mark_p.h. */
#define DELTA_MARK "#commit "

/* Whether the next line is a mark. */
bool delta_at_mark(const struct words* words);

#endif
