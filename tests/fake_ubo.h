#pragma once
// Scripted stand-in for libubo.so; filled in with the event-reporting tests.
