// A sparse matrix-vector product in compressed rows (double and single), the
// classic gather of x by column index, with the integer variant beside it.
#include "prog.h"

__attribute__((noipa)) static void spmv(double* restrict y, const long* restrict rows, const int32_t* restrict col,
                                        const double* restrict val, const double* restrict x, long m) {
  for (long r = 0; r < m; ++r) {
    double s = 0;
    for (long j = rows[r]; j < rows[r + 1]; ++j) s += val[j] * x[col[j]];
    y[r] = s;
  }
}
__attribute__((noipa)) static void spmv_int(int64_t* restrict y, const long* restrict rows, const int32_t* restrict col,
                                            const int32_t* restrict val, const int64_t* restrict x, long m) {
  for (long r = 0; r < m; ++r) {
    int64_t s = 0;
    for (long j = rows[r]; j < rows[r + 1]; ++j) s += val[j] * x[col[j]];
    y[r] = s;
  }
}

int main(int argc, char** argv) {
  long m = prog_size(argc, argv, 1 << 15);
  long per = 40;
  long* rows = malloc((m + 1) * sizeof(long));
  int32_t* col = malloc(m * per * 4);
  double* val = malloc(m * per * 8);
  int32_t* ival = malloc(m * per * 4);
  double *x = malloc(m * 8), *y = malloc(m * 8);
  int64_t *ix = malloc(m * 8), *iy = malloc(m * 8);
  uint64_t s = 17;
  long nz = 0;
  for (long r = 0; r < m; ++r) {
    rows[r] = nz;
    long k = (long)(prog_rand(&s) % (uint64_t)per);
    for (long j = 0; j < k; ++j, ++nz) {
      col[nz] = (int32_t)(prog_rand(&s) % (uint64_t)m);
      val[nz] = (double)(int32_t)prog_rand(&s) / 65536.0;
      ival[nz] = (int32_t)(prog_rand(&s) % 2001) - 1000;
    }
    x[r] = (double)(int32_t)prog_rand(&s) / 4096.0;
    ix[r] = (int64_t)(prog_rand(&s) % 100000);
  }
  rows[m] = nz;
  double t0 = prog_now();
  for (int r = 0; r < 4; ++r) {
    spmv(y, rows, col, val, x, m);
    spmv_int(iy, rows, col, ival, ix, m);
    x[r] = y[r];
  }
  double t = prog_now() - t0;
  uint64_t h = PROG_HASH0;
  h = prog_hash(h, y, m * 8); h = prog_hash(h, iy, m * 8);
  prog_report(h, t);
  return 0;
}
