// Away from macOS a process that opens no window shows nothing anywhere, so an
// automatic run has nothing to give up.

#include "backgroundprocess.h"

void makeProcessBackgroundOnly()
{
}
