#include "backgroundprocess.h"

#include <QtGlobal>

#import <AppKit/AppKit.h>

// QT_MAC_DISABLE_FOREGROUND_APPLICATION_TRANSFORM only stops Qt from turning
// the process into a foreground application itself. The updater's executable
// lives in Velmora.app/Contents/MacOS, so macOS takes Velmora.app for its
// main bundle: the process gets the application's bundle identity and its
// Info.plist, which (rightly, for the application) names neither LSUIElement
// nor LSBackgroundOnly. AppKit therefore makes it an ordinary application
// with a Dock tile and a menu bar whatever Qt does. Only the activation
// policy, set before the event loop finishes launching the application,
// keeps an automatic run out of sight.
void makeProcessBackgroundOnly()
{
    // Without the Cocoa platform (an offscreen run) there is no NSApp and
    // nothing that could show.
    if (NSApp == nil)
        return;
    if (![NSApp setActivationPolicy:NSApplicationActivationPolicyProhibited])
        qWarning("[main] could not make the automatic run a background-only process");
}
