// The native part of the Python module: the one-call API on bytes, with the
// interpreter lock released while converting. The package's __init__.py
// turns str into bytes, tuples into Attachment objects, and documents it all.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "rtfconverter/rtfconverter.hpp"

namespace py = pybind11;
using rtf_converter::Attachment;

namespace {

// A bytes object's contents, valid while the object lives. bytes are
// immutable, so the view stays valid with the interpreter lock released.
std::string_view View(const py::bytes& bytes)
{
    char* p = nullptr;
    Py_ssize_t cb = 0;
    if (PyBytes_AsStringAndSize(bytes.ptr(), &p, &cb) != 0)
        throw py::error_already_set();
    return std::string_view(p, static_cast<std::size_t>(cb));
}

py::bytes ToBytes(const std::vector<std::byte>& v)
{
    return py::bytes(reinterpret_cast<const char*>(v.data()), v.size());
}

std::vector<std::byte> FromBytes(const py::bytes& bytes)
{
    const std::string_view view = View(bytes);
    const auto* p = reinterpret_cast<const std::byte*>(view.data());
    return std::vector<std::byte>(p, p + view.size());
}

rtf_converter::Newline NewlineOf(const std::string& newline)
{
    if (newline == "\n") return rtf_converter::Newline::lf;
    if (newline == "\r\n") return rtf_converter::Newline::crlf;
    if (newline == "\r") return rtf_converter::Newline::cr;
    throw std::invalid_argument("newline must be \"\\n\", \"\\r\\n\" or \"\\r\"");
}

py::str RtfToText(const py::bytes& data, int codepage, const std::string& newline)
{
    rtf_converter::TextOptions options;
    options.codepage = codepage;
    options.newline = NewlineOf(newline);
    const std::string_view rtf = View(data);
    std::string text;
    {
        py::gil_scoped_release unlocked;
        text = rtf_converter::rtf_to_text(rtf, options);
    }
    // The reader writes U+FFFD for what it cannot decode, so strict decoding
    // would only fail on a fault of ours; "replace" keeps even that readable.
    PyObject* s = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
    if (!s)
        throw py::error_already_set();
    return py::reinterpret_steal<py::str>(s);
}

py::bytes TextToRtf(const py::bytes& utf8, int codepage)
{
    rtf_converter::RtfOptions options;
    options.codepage = codepage;
    const std::string_view text = View(utf8);
    std::string rtf;
    {
        py::gil_scoped_release unlocked;
        rtf = rtf_converter::text_to_rtf(text, options);
    }
    return py::bytes(rtf);
}

using AttachmentTuple = std::tuple<std::string, py::bytes, py::bytes>;

py::tuple RtfToOld(const py::bytes& data, bool tableTags, bool exact)
{
    rtf_converter::OldOptions options;
    options.table_tags = tableTags;
    options.exact = exact;
    const std::string_view rtf = View(data);
    rtf_converter::OldText old;
    {
        py::gil_scoped_release unlocked;
        old = rtf_converter::rtf_to_old(rtf, options);
    }
    py::list attachments;
    for (const Attachment& a : old.attachments)
        attachments.append(py::make_tuple(a.kind, ToBytes(a.data), ToBytes(a.picture)));
    return py::make_tuple(py::bytes(old.text), attachments);
}

// Attachments come as (kind, data, picture) tuples, or None for a number
// that has none.
py::bytes OldToRtf(const py::bytes& data, const std::vector<std::optional<AttachmentTuple>>& attachments, bool exact)
{
    std::vector<Attachment> values;
    values.reserve(attachments.size());
    for (const auto& a : attachments) {
        if (a)
            values.push_back(Attachment{std::get<0>(*a), FromBytes(std::get<1>(*a)), FromBytes(std::get<2>(*a))});
        else
            values.emplace_back();
    }
    rtf_converter::OldToRtfOptions options;
    options.exact = exact;
    const std::string_view old = View(data);
    std::string rtf;
    {
        py::gil_scoped_release unlocked;
        rtf = rtf_converter::old_to_rtf(old, values, options);
    }
    return py::bytes(rtf);
}

// ConversionError is the package's own class (a ValueError with offset and
// reason), defined in __init__.py.
void RaiseConversionError(const rtf_converter::ConversionError& e)
{
    py::object type = py::module_::import("rtfconverter").attr("ConversionError");
    py::object error = type(e.reason(), e.offset());
    PyErr_SetObject(type.ptr(), error.ptr());
}

} // namespace

PYBIND11_MODULE(_rtfconverter, m)
{
    m.doc() = "Native part of rtfconverter; use the rtfconverter package.";
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p)
                std::rethrow_exception(p);
        } catch (const rtf_converter::ConversionError& e) {
            RaiseConversionError(e);
        }
    });
    m.def("rtf_to_text", &RtfToText, py::arg("data"), py::arg("codepage"), py::arg("newline"));
    m.def("text_to_rtf", &TextToRtf, py::arg("utf8"), py::arg("codepage"));
    m.def("rtf_to_old", &RtfToOld, py::arg("data"), py::arg("table_tags"), py::arg("exact"));
    m.def("old_to_rtf", &OldToRtf, py::arg("data"), py::arg("attachments"), py::arg("exact"));
}
