// An array of structures (C++): particles of three and four fields, read and
// written as interleaved elements.
#include <vector>

#include "prog.h"

struct Rgb { uint8_t r, g, b; };
struct P4 { int32_t x, y, z, w; };
struct V2 { int64_t a, b; };

__attribute__((noipa)) static void gray(uint8_t* __restrict out, const Rgb* __restrict in, long n) {
  for (long i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((in[i].r * 77 + in[i].g * 150 + in[i].b * 29) >> 8);
}
__attribute__((noipa)) static void move(P4* __restrict p, const P4* __restrict v, long n) {
  for (long i = 0; i < n; ++i) {
    p[i].x += v[i].x; p[i].y += v[i].y; p[i].z -= v[i].z; p[i].w = p[i].x ^ p[i].y;
  }
}
__attribute__((noipa)) static void swap2(V2* __restrict out, const V2* __restrict in, long n) {
  for (long i = 0; i < n; ++i) { out[i].a = in[i].b + 1; out[i].b = in[i].a - 1; }
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 1 << 19);
  std::vector<Rgb> rgb(n);
  std::vector<uint8_t> g(n);
  std::vector<P4> p(n), v(n);
  std::vector<V2> a(n), b(n);
  uint64_t s = 23;
  for (long i = 0; i < n; ++i) {
    rgb[i] = {uint8_t(prog_rand(&s)), uint8_t(prog_rand(&s)), uint8_t(prog_rand(&s))};
    p[i] = {int32_t(prog_rand(&s)), int32_t(prog_rand(&s)), int32_t(prog_rand(&s)), 0};
    v[i] = {int32_t(prog_rand(&s) % 100), int32_t(prog_rand(&s) % 100), int32_t(prog_rand(&s) % 100), 0};
    a[i] = {int64_t(prog_rand(&s)), int64_t(prog_rand(&s))};
  }
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    gray(g.data(), rgb.data(), n);
    move(p.data(), v.data(), n);
    swap2(b.data(), a.data(), n);
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, g.data(), n); h = prog_hash(h, p.data(), n * sizeof(P4)); h = prog_hash(h, b.data(), n * sizeof(V2));
  prog_report(h, t);
  return 0;
}
