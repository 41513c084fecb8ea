#pragma once

#include "downloader.h"

// A Downloader ends without an error only after a complete installation,
// swap script included. To see what follows such an end, a test calls the
// private setter: an explicit template instantiation may name a private member.
namespace downloaderaccess {
struct IsFinishedSetter
{
};
auto privateMember(IsFinishedSetter);
template<auto Member, typename Tag>
struct Expose
{
    friend auto privateMember(Tag) { return Member; }
};
template struct Expose<&Downloader::setIsFinished, IsFinishedSetter>;
} // namespace downloaderaccess

inline void finishWithoutError(Downloader *downloader)
{
    (downloader->*downloaderaccess::privateMember(downloaderaccess::IsFinishedSetter{}))(true);
}
