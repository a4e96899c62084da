# Thin driver over CMake. `make demo` and `make test` are all a fresh machine needs.
BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_FUZZ ?= build-fuzz
BUILD_PACKAGE ?= build-package
BUILD_TSAN ?= build-tsan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 60
HOURS      ?= 1
FUZZ_JOBS  ?= 1
CMAKE_FLAGS ?=
# Sub-makes run by `cmake --build` would otherwise announce every directory they enter.
MAKEFLAGS += --no-print-directory

# What `make demo` needs, and what everything else needs on top of it.
DEMO_PACKAGES = cmake g++ make libcli11-dev
TEST_PACKAGES = $(DEMO_PACKAGES) libgtest-dev libbenchmark-dev groff-base man-db dpkg-dev lintian zsh pkg-config \
  pybind11-dev python3-dev python3-pytest python3-setuptools python3-wheel python3-venv python3-dask python3-distributed

.PHONY: all deps deps-demo configure configure-demo build demo test asan bench fuzz corpus interop man package fuzz-build fuzz-campaign tsan clean

all: build

# Installs the Debian packages a target needs when they are missing (as root),
# or names them.
define install_missing
	@missing=""; \
	if command -v dpkg >/dev/null; then \
	  for pkg in $(1); do dpkg -s $$pkg >/dev/null 2>&1 || missing="$$missing $$pkg"; done; \
	fi; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    echo "Installing:$$missing"; \
	    (apt-get install -y $$missing || (apt-get update && apt-get install -y $$missing)) >/dev/null; \
	  else \
	    echo "Please install these Debian packages:$$missing" >&2; exit 1; \
	  fi; \
	fi
endef

deps:
	$(call install_missing,$(TEST_PACKAGES))

deps-demo:
	$(call install_missing,$(DEMO_PACKAGES))

# The fuzz targets' replays and the Python module are part of `make test`.
TEST_FLAGS ?= -DRTFCONV_BUILD_FUZZ=ON -DRTFCONV_BUILD_PYTHON=ON

configure: deps
	@cmake -S . -B $(BUILD) -DRTFCONV_BUILD_TESTS=ON $(TEST_FLAGS) $(CMAKE_FLAGS) >/dev/null

# The first run is what a newcomer judges the project by: only the library and
# the tool, and no compiler chatter unless something fails.
# An existing build folder is kept as it is (make test's, say).
configure-demo: deps-demo
	@[ -f $(BUILD)/CMakeCache.txt ] || \
	  cmake -S . -B $(BUILD) -DRTFCONV_BUILD_TESTS=OFF -DRTFCONV_BUILD_BENCH=OFF -DRTFCONV_BUILD_FUZZ=OFF $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: configure-demo
	@echo "== building the library and rtfconv in $(BUILD)/"
	@cmake --build $(BUILD) -j $(JOBS) --target rtfconv >$(BUILD)/demo-build.log 2>&1 || { cat $(BUILD)/demo-build.log; exit 1; }
	@echo "== rtfconv rtf2txt examples/sample.rtf"
	@$(BUILD)/tools/rtfconv/rtfconv rtf2txt examples/sample.rtf

# Refreshes the man page kept in the tree (`man ./rtfconv.1`), which the tool
# generates from its own option definitions; cli.man fails while it is stale.
man: configure-demo
	@cmake --build $(BUILD) -j $(JOBS) --target rtfconv_docs >$(BUILD)/man-build.log 2>&1 || { cat $(BUILD)/man-build.log; exit 1; }
	@cp $(BUILD)/tools/rtfconv/rtfconv.1 rtfconv.1
	@echo "rtfconv.1 refreshed"

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The tests under AddressSanitizer (with LeakSanitizer) and UndefinedBehaviorSanitizer.
asan: deps
	@cmake -S . -B $(BUILD_ASAN) -DRTFCONV_SANITIZE=address,undefined -DRTFCONV_BUILD_FUZZ=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD_ASAN) -j $(JOBS)
	@cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# The tests that convert on several threads at once (the tool's -j, the
# code-page tables and the keyword index that threads share) under
# ThreadSanitizer.
TSAN_TESTS = ParallelConversion|cli\.output
tsan: deps
	@cmake -S . -B $(BUILD_TSAN) -DRTFCONV_SANITIZE=thread -DRTFCONV_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD_TSAN) -j $(JOBS) --target rtfconverter_tests rtfconv
	@cd $(BUILD_TSAN) && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --output-on-failure -R '$(TSAN_TESTS)'

# The whole-process table times rtfconv against catdoc, a peer, in the same run.
BENCH_PACKAGES = catdoc bc time
BENCH_RUNS ?= 5
BENCH_BIG_MB ?= 500
BENCH_LINEAR_MB ?= 100

bench: configure
	$(call install_missing,$(BENCH_PACKAGES))
	@cmake -S . -B $(BUILD) -DRTFCONV_BUILD_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target rtfconverter_bench rtfconv
	@[ -f bench/data/text-heavy.rtf ] || bash bench/make_bench.sh 20 >/dev/null
	@$(BUILD)/bench/rtfconverter_bench --benchmark_counters_tabular=true
	@bash bench/whole_process.sh $(BUILD) $(BENCH_RUNS) $(BENCH_BIG_MB) $(BENCH_LINEAR_MB)

# libFuzzer needs clang; each target fuzzes for FUZZ_SECONDS on its own corpus.
fuzz: fuzz-build
	@bash fuzz/run.sh $(BUILD_FUZZ)/fuzz $(FUZZ_SECONDS)

fuzz-build: deps
	@cmake -S . -B $(BUILD_FUZZ) -DCMAKE_CXX_COMPILER=clang++ -DRTFCONV_BUILD_FUZZ=ON -DRTFCONV_LIBFUZZER=ON \
	  -DRTFCONV_BUILD_TESTS=OFF -DRTFCONV_BUILD_BENCH=OFF -DRTFCONV_BUILD_TOOLS=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD_FUZZ) -j $(JOBS)

# A long campaign at the lowest priority: HOURS in all, shared by the targets
# (FUZZ_JOBS of them at once), starting from the real documents too; what the
# targets find is merged, minimised, into fuzz/corpus/ and findings are kept in
# fuzz/findings/ for `make test`.
fuzz-campaign: fuzz-build
	@n=$$(ls $(BUILD_FUZZ)/fuzz/fuzz_* | wc -l); \
	seconds=$$(awk -v h=$(HOURS) -v n=$$n -v j=$(FUZZ_JOBS) 'BEGIN { s = int(h * 3600 * j / n); print (s < 1 ? 1 : s) }'); \
	FUZZ_CAMPAIGN=1 FUZZ_JOBS=$(FUZZ_JOBS) nice -n 19 bash fuzz/run.sh $(BUILD_FUZZ)/fuzz $$seconds

# Does LibreOffice read the RTF we write as we mean it? Not part of `make test`:
# installs libreoffice-writer and poppler-utils when missing (as root), compares
# LibreOffice's text of our documents with ours and renders one page to PNG.
interop: build
	@if ! command -v soffice >/dev/null || ! command -v pdftoppm >/dev/null || ! command -v python3 >/dev/null; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    echo "Installing: libreoffice-writer poppler-utils python3"; \
	    (apt-get install -y --no-install-recommends libreoffice-writer poppler-utils python3 || \
	     (apt-get update && apt-get install -y --no-install-recommends libreoffice-writer poppler-utils python3)) >/dev/null; \
	  else \
	    echo "Please install these Debian packages: libreoffice-writer poppler-utils python3" >&2; exit 1; \
	  fi; \
	fi
	@status=0; bash tests/interop/interop.sh $(BUILD)/tools/rtfconv/rtfconv $(BUILD)/interop || status=1; \
	  bash tests/interop/roundtrip.sh $(BUILD)/tools/rtfconv/rtfconv $(BUILD)/roundtrip tests/corpus/rtf || status=1; \
	  exit $$status

# The Debian package, built for /usr from the library and the tool alone, then
# checked: unpacked into a scratch root and run from there, and by lintian.
package: deps
	@cmake -S . -B $(BUILD_PACKAGE) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DRTFCONV_BUILD_TESTS=OFF -DRTFCONV_BUILD_BENCH=OFF -DRTFCONV_BUILD_FUZZ=OFF \
	  -DRTFCONV_TOOL_STATIC_LIBSTDCXX=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD_PACKAGE) -j $(JOBS) >$(BUILD_PACKAGE)/build.log 2>&1 || { cat $(BUILD_PACKAGE)/build.log; exit 1; }
	@cd $(BUILD_PACKAGE) && cpack -G DEB >cpack.log 2>&1 || { cat cpack.log; exit 1; }
	@bash tests/cli/package.sh $(BUILD_PACKAGE)/tools/rtfconv/rtfconv $(BUILD_PACKAGE)/rtfconverter_*.deb --lintian
	@ls $(BUILD_PACKAGE)/rtfconverter_*.deb

# How closely rtf2txt reads the corpus as LibreOffice does: per-file word
# agreement with LibreOffice's text export. Not part of `make test`; needs
# libreoffice-writer (`make interop` installs it).
.PHONY: agreement
agreement: build
	@command -v soffice >/dev/null || { echo "Please install the Debian package libreoffice-writer" >&2; exit 1; }
	@python3 tests/interop/text_agreement.py $(BUILD)/tools/rtfconv/rtfconv tests/corpus/rtf $(BUILD)/agreement

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ) $(BUILD_PACKAGE)
