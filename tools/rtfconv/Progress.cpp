// The progress bar on stderr.
#include "tools/rtfconv/ToolCommon.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <unistd.h>

namespace rtfconv {

namespace {

// "m:ss", or "h:mm:ss" from an hour on.
std::string Duration(double seconds)
{
    const long total = std::lround(std::max(0.0, seconds));
    char text[32];
    if (total >= 3600)
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    else
        std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    return text;
}

// The amounts done and to do, and the rate, in the unit's words.
std::string Amounts(CProgressMeter::Unit unit, std::uint64_t done, std::uint64_t total, double perSecond)
{
    char text[96];
    if (unit == CProgressMeter::Unit::Files) {
        std::snprintf(text, sizeof text, "%llu / %llu files  %.1f files/s", static_cast<unsigned long long>(done),
                      static_cast<unsigned long long>(total), perSecond);
    } else {
        constexpr double cbMiB = 1024.0 * 1024.0;
        std::snprintf(text, sizeof text, "%.1f / %.1f MiB  %.1f MiB/s", static_cast<double>(done) / cbMiB,
                      static_cast<double>(total) / cbMiB, perSecond / cbMiB);
    }
    return text;
}

} // namespace

std::string ProgressLine(CProgressMeter::Unit unit, std::uint64_t done, std::uint64_t total, double seconds)
{
    constexpr int cchBar = 30;
    done = std::min(done, total);
    const int percent = total == 0 ? 100 : static_cast<int>(done * 100 / total);
    const int cchFilled = percent * cchBar / 100;
    const double perSecond = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    // Until something is done there is no rate to judge the rest by.
    const std::string left =
        done == total ? Duration(seconds) + " total"
        : perSecond > 0 ? Duration(static_cast<double>(total - done) / perSecond) + " left"
                        : "--:-- left";
    char percentText[8];
    std::snprintf(percentText, sizeof percentText, "%3d%%", percent);
    return "[" + std::string(static_cast<std::size_t>(cchFilled), '#') +
           std::string(static_cast<std::size_t>(cchBar - cchFilled), '.') + "] " + percentText + "  " +
           Amounts(unit, done, total, perSecond) + "  " + left;
}

void CProgressMeter::AddTotal(std::uint64_t c)
{
    const std::uint64_t total = m_total.fetch_add(c) + c;
    const bool bLarge = m_unit == Unit::Files ? total > cAutoFiles : total > cbAutoThreshold;
    if (m_mode == Mode::On || (m_mode == Mode::Auto && bLarge && ::isatty(STDERR_FILENO))) m_bActive.store(true);
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
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    const std::string line = ProgressLine(m_unit, m_done.load(), m_total.load(), seconds);
    std::lock_guard<std::mutex> lock(StderrMutex());
    // Trailing blanks wipe what a longer line before left.
    std::fprintf(stderr, "\r%s    ", line.c_str());
    std::fflush(stderr);
    m_bDrawn = true;
}

void CProgressMeter::Finish()
{
    std::lock_guard<std::mutex> lock(m_drawMutex);
    if (!m_bActive.load() || m_bFinished) return;
    Draw();
    std::lock_guard<std::mutex> errLock(StderrMutex());
    std::fputc('\n', stderr);
    m_bFinished = true;
}

} // namespace rtfconv
