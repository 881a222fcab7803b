#pragma once

// The whole public interface of the library.

#include <chronotick/ChannelScheme.h>
#include <chronotick/ChronotickBase.h>
#include <chronotick/Export.h>
#include <chronotick/Iterator.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Logging.h>
#include <chronotick/OrderedBarrier.h>
#include <chronotick/Tag.h>
#include <chronotick/TimeTagStream.h>
#include <chronotick/TimeTagStreamBuffer.h>

#include <chronotick/Channels.h>
#include <chronotick/Measurements.h>
#include <chronotick/Storage.h>
