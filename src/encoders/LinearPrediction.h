#pragma once
// Linear prediction for extending a signal past its end: the Opus encoder
// continues the last samples of each channel smoothly instead of padding them
// with silence, so the final frame and the codec's look-ahead do not end in a
// step that would ring into the audible part.

#include <cstddef>

namespace velvox {

// Fits an order-m predictor to the n samples in data (autocorrelation and the
// Levinson-Durbin recursion, with a slight bandwidth expansion so that the
// predictor stays stable). Writes m coefficients to lpci and returns the
// residual energy; all zeros (and 0) for silence or when n <= m.
float vorbis_lpc_from_data(const float* data, float* lpci, int n, int m);

// Extends a signal by n samples: prime holds its last m samples (oldest
// first), coeff the predictor; data receives the continuation.
void vorbis_lpc_predict(const float* coeff, const float* prime, int m, float* data, long n);

} // namespace velvox
