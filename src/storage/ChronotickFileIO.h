#pragma once

// The codec of one part of a .ctbin recording, all of it: the container
// (TagFileFormat.h), TagFileWriter, which produces a part, and TagFileReader,
// which reads one back block by block. Internal to the library.

#include "storage/TagFileFormat.h"
#include "storage/TagFileReader.h"
#include "storage/TagFileWriter.h"
