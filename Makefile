# Thin driver over CMake. `make demo` and `make test` are all a fresh machine needs.
BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_FUZZ ?= build-fuzz
BUILD_TSAN ?= build-tsan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 60
HOURS      ?= 1
FUZZ_JOBS  ?= 1
CMAKE_FLAGS ?=

.PHONY: all deps configure build demo test asan bench fuzz fuzz-build fuzz-campaign tsan corpus interop clean

all: build

# Installs what the build needs from Debian when it is missing (as root), or
# names the packages to install.
deps:
	@missing=""; \
	[ -f /usr/include/CLI/CLI.hpp ] || missing="$$missing libcli11-dev"; \
	[ -d /usr/include/gtest ] || missing="$$missing libgtest-dev"; \
	[ -d /usr/include/benchmark ] || missing="$$missing libbenchmark-dev"; \
	command -v cmake >/dev/null || missing="$$missing cmake"; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    echo "Installing:$$missing"; \
	    (apt-get install -y $$missing || (apt-get update && apt-get install -y $$missing)) >/dev/null; \
	  else \
	    echo "Please install these Debian packages:$$missing" >&2; exit 1; \
	  fi; \
	fi

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@echo "== rtfconv rtf2txt examples/sample.rtf"
	@$(BUILD)/tools/rtfconv/rtfconv rtf2txt examples/sample.rtf

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The tests under AddressSanitizer (with LeakSanitizer) and UndefinedBehaviorSanitizer.
asan: deps
	@cmake -S . -B $(BUILD_ASAN) -DRTFCONV_SANITIZE=address,undefined -DRTFCONV_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS) >/dev/null
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

bench: build
	@[ -f bench/data/text-heavy.rtf ] || bash bench/make_bench.sh 20 >/dev/null
	@$(BUILD)/bench/rtfconverter_bench --benchmark_counters_tabular=true

# libFuzzer needs clang; each target fuzzes for FUZZ_SECONDS on its own corpus.
fuzz: fuzz-build
	@bash fuzz/run.sh $(BUILD_FUZZ)/fuzz $(FUZZ_SECONDS)

fuzz-build: deps
	@cmake -S . -B $(BUILD_FUZZ) -DCMAKE_CXX_COMPILER=clang++ -DRTFCONV_LIBFUZZER=ON \
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
	@if ! command -v soffice >/dev/null || ! command -v pdftoppm >/dev/null; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    echo "Installing: libreoffice-writer poppler-utils"; \
	    (apt-get install -y --no-install-recommends libreoffice-writer poppler-utils || \
	     (apt-get update && apt-get install -y --no-install-recommends libreoffice-writer poppler-utils)) >/dev/null; \
	  else \
	    echo "Please install these Debian packages: libreoffice-writer poppler-utils" >&2; exit 1; \
	  fi; \
	fi
	@bash tests/interop/interop.sh $(BUILD)/tools/rtfconv/rtfconv $(BUILD)/interop

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ)
