#pragma once

// Makes this process background-only: no Dock tile, no menu bar, never the
// active application. Call it once the application object exists and before
// the event loop starts. Where processes have no such presence it does
// nothing.
void makeProcessBackgroundOnly();
