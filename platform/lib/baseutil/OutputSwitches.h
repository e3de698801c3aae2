// OutputSwitches.h - the console and log switches of the library's own
// messages, read once from the product configuration file.
#ifndef TOVI_BASEUTIL_OUTPUTSWITCHES_H
#define TOVI_BASEUTIL_OUTPUTSWITCHES_H

void LoadOutputSwitches();

#endif
