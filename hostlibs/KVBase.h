// The host's base library: the exception through which its components report
// failures they cannot handle where they happen.
#pragma once
#include "rtfconverter/Export.h"

#include <string>

// Thrown BY VALUE; catch it as `const CKVWException&` or with `catch (...)`.
class RTFCONV_API CKVWException {
public:
    CKVWException(const char* text, const char* file, const char* function, int line);

    // Raises a CKVWException carrying the text and the place it came from.
    // Any of the pointers may be null; `line` is -1 when unknown.
    [[noreturn]] static void RaiseError(const char* text, const char* file, const char* function, int line);

    const std::string& GetText() const { return m_text; }
    const std::string& GetFile() const { return m_file; }
    const std::string& GetFunction() const { return m_function; }
    int GetLine() const { return m_line; }

private:
    std::string m_text;
    std::string m_file;
    std::string m_function;
    int m_line;
};
