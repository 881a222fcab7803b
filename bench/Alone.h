#pragma once

// A measurement with its protected hook callable directly, so that a
// benchmark can time next_impl without the engine, on the same blocks.

template <class M> struct Alone : M {
  using M::M;
  using M::next_impl;
};
