#include "hostlibs/KVBase.h"

CKVWException::CKVWException(const char* text, const char* file, const char* function, int line)
    : m_text(text ? text : ""), m_file(file ? file : ""), m_function(function ? function : ""), m_line(line)
{
}

void CKVWException::RaiseError(const char* text, const char* file, const char* function, int line)
{
    throw CKVWException(text, file, function, line);
}
