// A matrix multiply (C++ templates, single and double precision), i-k-j order
// so that the inner loop streams rows.
#include <vector>

#include "prog.h"

template <typename T>
__attribute__((noipa)) static void matmul(T* __restrict c, const T* __restrict a, const T* __restrict b, long n) {
  for (long i = 0; i < n * n; ++i) c[i] = 0;
  for (long i = 0; i < n; ++i)
    for (long k = 0; k < n; ++k) {
      const T aik = a[i * n + k];
      for (long j = 0; j < n; ++j) c[i * n + j] += aik * b[k * n + j];
    }
}

int main(int argc, char** argv) {
  long n = prog_size(argc, argv, 160);
  std::vector<float> a(n * n), b(n * n), c(n * n);
  std::vector<double> da(n * n), db(n * n), dc(n * n);
  uint64_t s = 43;
  for (long i = 0; i < n * n; ++i) {
    a[i] = float(int32_t(prog_rand(&s) % 2001) - 1000) / 64.0f;
    b[i] = float(int32_t(prog_rand(&s) % 2001) - 1000) / 64.0f;
    da[i] = double(int64_t(prog_rand(&s))) / 1e18;
    db[i] = double(int64_t(prog_rand(&s))) / 1e18;
  }
  double t0 = prog_now();
  matmul(c.data(), a.data(), b.data(), n);
  matmul(dc.data(), da.data(), db.data(), n);
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, c.data(), n * n * 4); h = prog_hash(h, dc.data(), n * n * 8);
  prog_report(h, t);
  return 0;
}
