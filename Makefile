# The two commands of the README:
#   make demo   set up, build, and run the demo
#   make test   set up, build both builds (and the sanitizer build), run every test
#
# Build trees: build/native, build/asan (AddressSanitizer + UBSan), build/aarch64.

JOBS ?= 2
CMAKE_FLAGS ?=

.PHONY: programs demo demo-build test setup native asan aarch64 test-native test-asan test-aarch64 bench speed-table oracle fplib-check robust clean

setup:
	@tools/setup.sh

build/native/Makefile: | setup
	cmake -S . -B build/native $(CMAKE_FLAGS)

build/asan/Makefile: | setup
	cmake -S . -B build/asan -DQUERN_SANITIZE=ON -DQUERN_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS)

build/aarch64/Makefile: | setup
	cmake -S . -B build/aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DQUERN_BENCHMARKS=OFF $(CMAKE_FLAGS)

native: build/native/Makefile
	cmake --build build/native -j $(JOBS)

asan: build/asan/Makefile
	cmake --build build/asan -j $(JOBS)

aarch64: build/aarch64/Makefile
	cmake --build build/aarch64 -j $(JOBS)

test-native: native aarch64
	cd build/native && ctest --output-on-failure -j $(JOBS)

test-asan: asan
	cd build/asan && ctest --output-on-failure -j $(JOBS)

test-aarch64: aarch64
	cd build/aarch64 && ctest --output-on-failure -j $(JOBS)

test: test-native test-asan test-aarch64

# The demo needs only the tool and the AArch64 libraries and program.
demo-build: build/native/Makefile build/aarch64/Makefile
	cmake --build build/native -j $(JOBS) --target quern
	cmake --build build/aarch64 -j $(JOBS) --target quern_framework quern_sg_sve_384 sve_demo

demo: demo-build
	@echo "== examples/sve_demo.c under quern run, on a processor without SVE"
	build/native/tools/quern/quern run --stats --trace build/sve_demo.qtrace -- build/aarch64/examples/sve_demo
	@echo
	@echo "== its memory trace"
	build/native/tools/quern/quern trace stats build/sve_demo.qtrace
	@echo
	@echo "== what the emulator knows of some instruction words"
	build/native/tools/quern/quern decode 0x04a20020 0x2520e020 0x0416a000 0x8b020020
	build/native/tools/quern/quern decode --coverage | tail -1

# BENCH_BEFORE=DIR adds a line for the AArch64 libraries in DIR (an older build).
bench: native aarch64
	build/native/bench/bench_decode
	bench/run_emulated_add.sh build/native/tools/quern/quern build/aarch64/bench/emulated_add 1000000 $(BENCH_BEFORE)

# The speed figures in one run: ns per emulated instruction on each road, ns
# per word of a streaming loop's words, and every compiled program under quern
# against the reference processor at SPEED_SCALE times the sizes of CI.
# BENCH_BEFORE=DIR adds the one-word line of an older build's libraries.
SPEED_SCALE ?= 20
speed-table: native aarch64
	bench/speed_table.sh build/native/tools/quern/quern build/aarch64 build/speed-programs \
	  --scale $(SPEED_SCALE) $(if $(BENCH_BEFORE),--before $(BENCH_BEFORE))

# The differential test, at length: every row, ORACLE_TRIALS trials each, a
# fresh seed (or ORACLE_SEED=...). Report in build/aarch64/oracle-report.tsv.
ORACLE_TRIALS ?= 100
ORACLE_FLAGS ?= --quiet
oracle: aarch64
	@seed=$${ORACLE_SEED:-$$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}; \
	echo "oracle seed: $$seed"; \
	qemu-aarch64 -cpu max,sve-max-vq=3 -L /usr/aarch64-linux-gnu build/aarch64/tests/oracle/quern-oracle \
	  --trials $(ORACLE_TRIALS) --seed $$seed --report build/aarch64/oracle-report.tsv $(ORACLE_FLAGS)

# Every word of the SVE group through the emulator, at length, under
# AddressSanitizer and UBSan: ROBUST_WORDS random words, a fresh seed (or
# ROBUST_SEED=...). Prints words tried, rows reached and crashes.
ROBUST_WORDS ?= 10000000
robust: build/asan/Makefile
	cmake --build build/asan -j $(JOBS) --target quern-fuzz-words
	@seed=$${ROBUST_SEED:-$$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}; \
	build/asan/tests/robust/quern-fuzz-words --words $(ROBUST_WORDS) --seed $$seed 2> build/asan/robust-stderr.log; \
	rc=$$?; grep -v '^Unimplemented instruction' build/asan/robust-stderr.log | head -40; exit $$rc

# The floating-point library against the reference processor's instructions,
# at length: FPLIB_CASES random cases per row and every 16-bit input of the
# one-operand rows, a fresh seed (or FPLIB_SEED=...).
FPLIB_CASES ?= 100000
fplib-check: build/aarch64/Makefile
	cmake --build build/aarch64 -j $(JOBS) --target fplib_check
	@seed=$${FPLIB_SEED:-$$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}; \
	qemu-aarch64 -cpu max,sve-max-vq=3 -L /usr/aarch64-linux-gnu build/aarch64/tests/fplib/fplib_check \
	  --cases $(FPLIB_CASES) --seed $$seed --exhaustive

# The compiled programs: each kernel under quern (one word per call and
# --runs) against the reference processor and against its NEON build.
# PROGRAMS=... runs some only; PROGRAMS_SIZE=--small the sizes of CI.
programs: demo-build
	programs/run_programs.sh build/native/tools/quern/quern build/programs $(PROGRAMS_SIZE) $(PROGRAMS)

clean:
	rm -rf build
