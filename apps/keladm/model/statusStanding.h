// What a thread of the daemon stands in, by its code and in words.
#ifndef KELADM_STATUSSTANDING_H
#define KELADM_STATUSSTANDING_H

#include <cstddef>
#include <kltlibs/statusfile.h>
#include <string>

KeldStanding Standing(const KeldStatusThread &thread);

// The place of the agent whose pipe a thread waits for; kKeldStatusThreads when it waits for none.
std::size_t AwaitedPipe(const KeldStatusThread &thread);

// "posting, waits for the receiver"; of the thread in this place of the file.
std::string StandsText(const KeldStatusFile &file, std::size_t place);

#endif
