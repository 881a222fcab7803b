// The virtual channels: each puts new tags into the stream on channels that
// its getters name, for measurements built after it.

#include "Bindings.h"

#include <chronotick/Channels.h>

namespace chronotick::python {

namespace {

void bindCoincidences(py::module_ &m) {
  py::enum_<CoincidenceTimestamp>(m, "CoincidenceTimestamp", "Which time a coincidence tag gets.")
      .value("Last", CoincidenceTimestamp::Last, "the tag that completed the coincidence, emitted at once")
      .value("Average", CoincidenceTimestamp::Average, "mean of the group's latest times, plus the window")
      .value("First", CoincidenceTimestamp::First, "earliest of the group's latest times, plus the window")
      .value("ListedFirst", CoincidenceTimestamp::ListedFirst,
             "latest time of the group's first channel, plus the window");

  py::class_<Coincidences, IteratorBase>(m, "Coincidences", R"(
Watches groups of channels. Whenever every channel of a group had a tag within
coincidenceWindow ps (t - latest < window), a tag goes out on the group's new
channel, timed as `timestamp` says; tags timed after the window are held back
until the stream has passed them.

Error, OverflowBegin/End and MissedEvents forget every channel's latest time,
so no coincidence spans a break. All tags of the stream pass unchanged.
A window of 0 or less never fires. Raises RuntimeError "coincidences groups
are empty", "one of the groups is empty" or "no more than 64 different
channels can be used at once on a single Coincidences measurement. Split the
groups into multiple measurements".)")
      .def(py::init([](TaggerHandle &tagger, std::vector<std::vector<std::int32_t>> coincidenceGroups,
                       std::int64_t coincidenceWindow, CoincidenceTimestamp timestamp) {
             return new Coincidences(tagger.get(), std::move(coincidenceGroups), coincidenceWindow, timestamp);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("coincidenceGroups"), py::arg("coincidenceWindow") = 1000,
           py::arg("timestamp") = CoincidenceTimestamp::Last)
      .def("getChannels", &Coincidences::getChannels, "The new channels, in the order of the groups.")
      .def("setCoincidenceWindow", &Coincidences::setCoincidenceWindow, py::arg("window"),
           "Window in ps, from the next tag on; latest times and held tags stay.");

  py::class_<Coincidence, Coincidences>(m, "Coincidence", R"(
Coincidences of exactly one group of channels: a tag goes out on the new
channel whenever every listed channel had a tag within coincidenceWindow ps.
Raises RuntimeError "one of the groups is empty" for an empty list.)")
      .def(py::init([](TaggerHandle &tagger, std::vector<std::int32_t> channels, std::int64_t coincidenceWindow,
                       CoincidenceTimestamp timestamp) {
             return new Coincidence(tagger.get(), std::move(channels), coincidenceWindow, timestamp);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("channels"), py::arg("coincidenceWindow") = 1000,
           py::arg("timestamp") = CoincidenceTimestamp::Last)
      .def("getChannel", &Coincidence::getChannel, "The new channel.");
}

void bindCopies(py::module_ &m) {
  py::class_<Combiner, IteratorBase>(m, "Combiner", R"(
Merges several channels into one new channel and counts the tags of each input.

Every tag of an input is copied, type kept, right behind its source: a
MissedEvents tag gives a MissedEvents tag (counted once). Error and
OverflowBegin/End pass unchanged and are neither copied nor counted.
A channel listed twice is copied and counted twice.)")
      .def(py::init([](TaggerHandle &tagger, std::vector<std::int32_t> channels) {
             return new Combiner(tagger.get(), std::move(channels));
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("channels"))
      .def("getChannel", &Combiner::getChannel, "The new channel.")
      .def(
          "getData",
          [](Combiner &self) { return array1<std::int64_t>([&](auto allocate) { self.getData(allocate); }); },
          "int64 array (number of inputs): tags seen per input since the last clear.");

  py::class_<GatedChannel, IteratorBase>(m, "GatedChannel", R"(
Copies the tags of input_channel to a new channel while a gate is open: a tag
of gate_start_channel opens it, a tag of gate_stop_channel closes it. The gate
starts closed and survives clear, stop and start.

Error, OverflowBegin/End and MissedEvents close the gate and are not copied.
Raises RuntimeError "Gate start and stop channel must not be the same.")")
      .def(py::init([](TaggerHandle &tagger, std::int32_t input_channel, std::int32_t gate_start_channel,
                       std::int32_t gate_stop_channel) {
             return new GatedChannel(tagger.get(), input_channel, gate_start_channel, gate_stop_channel);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("input_channel"), py::arg("gate_start_channel"),
           py::arg("gate_stop_channel"))
      .def("getChannel", &GatedChannel::getChannel, "The new channel.");

  py::class_<DelayedChannel, IteratorBase>(m, "DelayedChannel", R"(
Adds delayed copies of one or more channels, each on a new channel. With a
negative delay the rest of the stream is held back |delay| ps instead, so that
the copies run ahead of their sources.

Delay 0 or more: each TimeTag of an input gets a copy at its time + delay;
Error drops the copies still waiting, copies falling between OverflowBegin and
OverflowEnd are dropped, MissedEvents are not copied. Negative delay: a copy
landing inside an overflow stretch becomes a MissedEvents tag. A start drops
whatever is still held back. Raises RuntimeError "redundant channels are not
permitted" for a channel named twice.)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t input_channel, std::int64_t delay) {
             return new DelayedChannel(tagger.get(), input_channel, delay);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("input_channel"), py::arg("delay"))
      .def(py::init([](TaggerHandle &tagger, std::vector<std::int32_t> input_channels, std::int64_t delay) {
             return new DelayedChannel(tagger.get(), std::move(input_channels), delay);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("input_channels"), py::arg("delay"))
      .def("getChannel", &DelayedChannel::getChannel, "The copy of the first input.")
      .def("getChannels", &DelayedChannel::getChannels, "The copies, in the order of the inputs.")
      .def("setDelay", &DelayedChannel::setDelay, py::arg("delay"),
           "Delay in ps. A negative delay can't follow one of 0 or more: ValueError \"changing from a positive "
           "delay to a negative delay while running is not supported\".");
}

void bindGenerators(py::module_ &m) {
  py::class_<ConstantFractionDiscriminator, IteratorBase>(m, "ConstantFractionDiscriminator", R"(
Puts one tag at the centre of each pulse: a rising edge on a named channel
followed by the edge of its inverted channel within search_window ps. The
whole stream leaves delayed by search_window / 2 so that centres fall in order.

Error, OverflowBegin/End and MissedEvents drop what is still held back and
every centre not yet out; the break tag passes undelayed. Raises ValueError
"search_window must be at least 1 ps", or "Channel number <c> has no inverted
edge required for the CFD".)")
      .def(py::init([](TaggerHandle &tagger, std::vector<std::int32_t> channels, std::int64_t search_window) {
             return new ConstantFractionDiscriminator(tagger.get(), std::move(channels), search_window);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("channels"), py::arg("search_window"))
      .def("getChannels", &ConstantFractionDiscriminator::getChannels,
           "One output channel for each entry of the constructor's list, in order.");

  py::class_<FrequencyMultiplier, IteratorBase>(m, "FrequencyMultiplier", R"(
Fills each period of a periodic input channel with multiplier - 1 evenly
spaced tags on a new channel, assuming that the next period equals the last
one. From the second input tag on, each one is copied to the output too.

Error, OverflowBegin/End and MissedEvents forget the period: output resumes
with the second input after the break. A multiplier below 2 is stored as 1.)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t input_channel, std::int32_t multiplier) {
             return new FrequencyMultiplier(tagger.get(), input_channel, multiplier);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("input_channel"), py::arg("multiplier"))
      .def("getChannel", &FrequencyMultiplier::getChannel, "The output channel.")
      .def("getMultiplier", &FrequencyMultiplier::getMultiplier, "The multiplier as stored (1 for anything below 2).");

  py::class_<EventGenerator, IteratorBase>(m, "EventGenerator", R"(
Plays `pattern` (times relative to the trigger, ps) on a new channel for every
trigger_divider-th tag of trigger_channel, starting with the one numbered
divider_offset. A tag on stop_channel cancels whatever is still pending.
Negative pattern values delay the whole stream by the smallest of them.

Error drops the rest of every pattern being played; generated tags falling
between OverflowBegin and OverflowEnd become MissedEvents tags. Raises
RuntimeError "negative or zero trigger dividers are not supported" or
"divider_offset must be smaller than trigger_divider".)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t trigger_channel, std::vector<std::int64_t> pattern,
                       std::int64_t trigger_divider, std::int64_t divider_offset, std::int32_t stop_channel) {
             // Negative values get the library's own answers rather than a conversion error.
             if (trigger_divider < 0)
               throw std::runtime_error("negative or zero trigger dividers are not supported");
             if (divider_offset < 0)
               throw std::runtime_error("divider_offset must be smaller than trigger_divider");
             return new EventGenerator(tagger.get(), trigger_channel, std::move(pattern),
                                       static_cast<std::uint64_t>(trigger_divider),
                                       static_cast<std::uint64_t>(divider_offset), stop_channel);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("trigger_channel"), py::arg("pattern"),
           py::arg("trigger_divider") = 1, py::arg("divider_offset") = 0, py::arg("stop_channel") = CHANNEL_UNUSED)
      .def("getChannel", &EventGenerator::getChannel, "The channel of the generated tags.");
}

} // namespace

void bindChannels(py::module_ &m) {
  bindCoincidences(m);
  bindCopies(m);
  bindGenerators(m);
}

} // namespace chronotick::python
