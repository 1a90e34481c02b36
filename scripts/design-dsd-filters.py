#!/usr/bin/env python3
"""Designs the half-filters of the DSD decimator and writes
src/decoders/DSDFilterCoefficients.h.

Each filter is a symmetric (even-length, linear-phase) low-pass FIR of 2H taps
for decimation of a 1-bit stream by 8, 16 or 32. Only one half is stored,
c[0] next to the centre and c[H-1] at the end; the half sums to 0.5 so the
whole filter has unity gain at DC. The four centre coefficients are fixed
values that the decoder has always used; the rest is a least-squares design
(pass-band error plus weighted stop-band energy, lightly pulled towards a
Kaiser-windowed sinc so the system stays well conditioned) under those
constraints.

Usage: scripts/design-dsd-filters.py [--check]
  without arguments: rewrites the header;
  --check: rebuilds the tables and fails when the header differs or when a
           filter misses its pass-band or stop-band target.
Pure Python (no numpy), a few seconds.
"""
import math
import os
import sys

DSD64 = 2822400.0

# Per decimation: half taps; the fixed centre coefficients; the Kaiser
# prior (cut-off in cycles per input sample, beta) that those centre values
# come from; pass-band and stop-band edges as fractions of the output Nyquist
# frequency (input rate / 2D); the targets the design must meet (pass-band
# ripple in dB, stop-band attenuation in dB).
FILTERS = {
    8: (48, [0.09950731974056658, 0.09562845727714668, 0.08819647126516944,
             0.07782552527068175], (0.05, 15.68), 0.2, 1.6, 0.001, 120.0),
    16: (112, [0.05760462813961341, 0.05691757911729226, 0.0555598293469891,
               0.053563569707571], (0.028836, 11.99), 0.49, 1.6, 0.002, 100.0),
    32: (288, [0.0283218730676493, 0.02824254652547156, 0.02808432323267462,
               0.02784805981693617], (0.0141616, 7.43), 0.66, 1.2, 0.02, 72.0),
}
STOP_WEIGHT = 100.0
REGULARISATION = 1e-6


def bessel_i0(x):
    total = term = 1.0
    k = 1
    while term > 1e-17 * total:
        term *= (x / (2 * k)) ** 2
        total += term
        k += 1
    return total


def kaiser_half(taps, cutoff, beta):
    half = []
    for k in range(taps):
        t = k + 0.5
        r = t / taps
        w = bessel_i0(beta * math.sqrt(max(0.0, 1 - r * r))) / bessel_i0(beta)
        x = math.pi * 2 * cutoff * t
        half.append(2 * cutoff * math.sin(x) / x * w)
    s = sum(half)
    return [v * 0.5 / s for v in half]


def band_cos_integral(x, lo, hi):
    """Integral of cos(x f) df from lo to hi."""
    if abs(x) < 1e-300:
        return hi - lo
    return (math.sin(x * hi) - math.sin(x * lo)) / x


def solve(matrix, rhs):
    """Gaussian elimination with partial pivoting."""
    n = len(rhs)
    a = [row[:] + [rhs[i]] for i, row in enumerate(matrix)]
    for col in range(n):
        pivot = max(range(col, n), key=lambda r: abs(a[r][col]))
        a[col], a[pivot] = a[pivot], a[col]
        p = a[col][col]
        rowc = a[col]
        for r in range(col + 1, n):
            f = a[r][col] / p
            if f:
                rowr = a[r]
                for c in range(col, n + 1):
                    rowr[c] -= f * rowc[c]
    x = [0.0] * n
    for r in range(n - 1, -1, -1):
        s = a[r][n] - sum(a[r][c] * x[c] for c in range(r + 1, n))
        x[r] = s / a[r][r]
    return x


def design(decimation):
    taps, fixed, (cutoff, beta), pass_edge, stop_edge, _, _ = FILTERS[decimation]
    nyquist_out = 0.5 / decimation
    fp, fs = pass_edge * nyquist_out, stop_edge * nyquist_out
    prior = kaiser_half(taps, cutoff, beta)
    # Response of the whole filter: A(f) = sum_k 2 c_k cos(w_k f), w_k = 2 pi (k + 1/2).
    w = [2 * math.pi * (k + 0.5) for k in range(taps)]

    def q(i, j):
        v = 0.0
        for lo, hi, weight in ((0.0, fp, 1.0), (fs, 0.5, STOP_WEIGHT)):
            v += weight * 2 * (band_cos_integral(w[i] - w[j], lo, hi) +
                               band_cos_integral(w[i] + w[j], lo, hi))
        return v

    def p(i):
        return 2 * band_cos_integral(w[i], 0.0, fp)

    nfix = len(fixed)
    free = list(range(nfix, taps))
    n = len(free)
    # Minimise c'Qc - 2p'c + eps |c - prior|^2 over the free coefficients with
    # sum(c) = 0.5 (Lagrange multiplier in the last row).
    qrows = [[q(i, j) for j in range(taps)] for i in free]
    matrix = []
    rhs = []
    for r, i in enumerate(free):
        row = [qrows[r][j] for j in free]
        row[r] += REGULARISATION
        row.append(0.5)
        matrix.append(row)
        rhs.append(p(i) - sum(qrows[r][j] * fixed[j] for j in range(nfix)) +
                   REGULARISATION * prior[i])
    matrix.append([1.0] * n + [0.0])
    rhs.append(0.5 - sum(fixed))
    x = solve(matrix, rhs)
    return fixed + x[:n], fp, fs


def response(half, f):
    return sum(2 * c * math.cos(2 * math.pi * (k + 0.5) * f) for k, c in enumerate(half))


def measure(half, fp, fs):
    ripple = 0.0
    steps = 400
    for s in range(steps + 1):
        a = response(half, fp * s / steps)
        ripple = max(ripple, abs(20 * math.log10(abs(a))))
    stop = -1e9
    steps = 4000
    for s in range(steps + 1):
        a = abs(response(half, fs + (0.5 - fs) * s / steps))
        stop = max(stop, 20 * math.log10(max(a, 1e-300)))
    return ripple, -stop


def render(results):
    out = []
    out.append("#pragma once")
    out.append("// Generated by scripts/design-dsd-filters.py; do not edit by hand.")
    out.append("//")
    out.append("// Half-filters of the DSD decimators, centre coefficient first. Each")
    out.append("// full filter is the half mirrored (2H taps, linear phase) and has unity")
    out.append("// gain at DC. Figures at the 2.8224 MHz DSD rate (they scale with it):")
    for d, (half, fp, fs, ripple, atten) in results.items():
        out.append("//   /%d: %d taps, pass band 0-%.1f kHz within +-%.4f dB, stop band"
                   % (d, 2 * len(half), fp * DSD64 / 1000, ripple))
        out.append("//        from %.1f kHz down by at least %.1f dB." % (fs * DSD64 / 1000, atten))
    out.append("")
    out.append("#include <array>")
    out.append("")
    out.append("namespace velvox {")
    out.append("")
    out.append("// clang-format off")
    for d, (half, *_rest) in results.items():
        out.append("inline constexpr std::array<double, %d> kDSDHalfFilter%d = {" % (len(half), d))
        for c in half:
            out.append("    %s," % repr(float(c)))
        out.append("};")
        out.append("")
    out.append("// clang-format on")
    out.append("")
    out.append("} // namespace velvox")
    return "\n".join(out) + "\n"


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    header = os.path.join(here, "..", "src", "decoders", "DSDFilterCoefficients.h")
    results = {}
    ok = True
    for d in sorted(FILTERS):
        half, fp, fs = design(d)
        ripple, atten = measure(half, fp, fs)
        total = sum(half)
        print("decimation %2d: %3d taps, sum of half %.15f, pass 0-%.1f kHz ripple %.4f dB, "
              "stop from %.1f kHz %.1f dB" % (d, 2 * len(half), total, fp * DSD64 / 1000, ripple,
                                              fs * DSD64 / 1000, atten))
        ripple_target, atten_target = FILTERS[d][5], FILTERS[d][6]
        if abs(total - 0.5) > 1e-12 or ripple > ripple_target or atten < atten_target:
            print("  misses its target", file=sys.stderr)
            ok = False
        results[d] = (half, fp, fs, ripple, atten)
    text = render(results)
    if "--check" in sys.argv[1:]:
        with open(header) as f:
            if f.read() != text:
                print("DSDFilterCoefficients.h differs from the design", file=sys.stderr)
                ok = False
    else:
        with open(header, "w") as f:
            f.write(text)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
