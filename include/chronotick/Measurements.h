#pragma once

// Measurements of the library; each class has a header of its own.
#include <chronotick/Correlation.h>
#include <chronotick/CountBetweenMarkers.h>
#include <chronotick/Counter.h>
#include <chronotick/Countrate.h>
#include <chronotick/FastBinning.h>
#include <chronotick/Flim.h>
#include <chronotick/Histogram.h>
#include <chronotick/Histogram2D.h>
#include <chronotick/HistogramLogBins.h>
#include <chronotick/Scope.h>
#include <chronotick/StartStop.h>
#include <chronotick/SynchronizedMeasurements.h>
#include <chronotick/TimeDifferences.h>
#include <chronotick/TimeDifferencesND.h>
