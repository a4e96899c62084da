// The progress bar on stderr.
#include "tools/rtfconv/ToolCommon.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace rtfconv {

void CProgressMeter::AddTotal(std::uint64_t cb)
{
    const std::uint64_t cbTotal = m_cbTotal.fetch_add(cb) + cb;
    const bool bShow = m_mode == Mode::On ||
                       (m_mode == Mode::Auto && cbTotal > cbAutoThreshold && ::isatty(STDERR_FILENO));
    if (bShow) m_bActive.store(true);
}

void CProgressMeter::MaybeDraw()
{
    std::unique_lock<std::mutex> lock(m_drawMutex, std::try_to_lock);
    if (!lock.owns_lock()) return; // another thread is drawing right now
    const auto now = std::chrono::steady_clock::now();
    if (m_bDrawn && now - m_lastDraw < std::chrono::milliseconds(100)) return;
    m_lastDraw = now;
    Draw();
}

void CProgressMeter::Draw()
{
    constexpr int cchBar = 30;
    const std::uint64_t cbTotal = m_cbTotal.load();
    const std::uint64_t cbDone = std::min(m_cbDone.load(), cbTotal);
    const int percent = cbTotal == 0 ? 100 : static_cast<int>(cbDone * 100 / cbTotal);
    char bar[cchBar + 1];
    const int cchFilled = percent * cchBar / 100;
    std::memset(bar, '#', static_cast<std::size_t>(cchFilled));
    std::memset(bar + cchFilled, '.', static_cast<std::size_t>(cchBar - cchFilled));
    bar[cchBar] = '\0';
    constexpr double cbMiB = 1024.0 * 1024.0;
    std::lock_guard<std::mutex> lock(StderrMutex());
    std::fprintf(stderr, "\r[%s] %3d%%  %.1f / %.1f MiB", bar, percent, static_cast<double>(cbDone) / cbMiB,
                 static_cast<double>(cbTotal) / cbMiB);
    std::fflush(stderr);
    m_bDrawn = true;
}

void CProgressMeter::Finish()
{
    std::lock_guard<std::mutex> lock(m_drawMutex);
    if (!m_bDrawn) return;
    m_cbDone.store(m_cbTotal.load());
    Draw();
    std::lock_guard<std::mutex> errLock(StderrMutex());
    std::fputc('\n', stderr);
    m_bDrawn = false;
}

} // namespace rtfconv
