// OutputSwitches.h - the console and log switches of the library's own
// messages, read once from the product configuration file.
#ifndef TOVI_BASEUTIL_OUTPUTSWITCHES_H
#define TOVI_BASEUTIL_OUTPUTSWITCHES_H

void LoadOutputSwitches();

// Where the library's own messages go. The trace manager, which sits above
// this layer, installs it when the library loads; until then (and with a
// null sink) the messages go nowhere.
typedef bool (*LibraryMessageSink)(const char* text, bool bPrint, bool bLog);
void SetLibraryMessageSink(LibraryMessageSink sink);

#endif
