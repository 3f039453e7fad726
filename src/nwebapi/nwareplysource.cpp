#include <nwebapi/nwareplysource.h>

NwaReplySource::NwaReplySource() {}

NwaReplySource::~NwaReplySource() {}
