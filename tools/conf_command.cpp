// morvane conf: configuration documents read exactly as the loader reads
// them, through the system's own readers.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "files/bxml_writer.h"
#include "files/utf_conversion.h"
#include "files/xml_document.h"
#include "files/xml_writer.h"
#include "loader/common/error_codes.h"
#include "tools/command.h"
#include "tools/conf_checks.h"
#include "tools/error_names.h"
#include "tools/host_file.h"

namespace MorvaneTool {
namespace {

const char kConfUsage[] =
    "Usage: morvane conf check FILE [--esp DIR [--image PATH] [--disk IMAGE]...]\n"
    "       morvane conf show FILE\n"
    "       morvane conf convert --to xml|bxml IN OUT\n"
    "\n"
    "Reads a configuration document, text or binary (BXML), as the loader reads it.\n"
    "\n"
    "  check    print 'ok' and a summary, or the refusal: the error code that the\n"
    "           loader reports (decimal and name), the byte offset where reading\n"
    "           stopped, the line and column for the text form, and the reason;\n"
    "           then the loader's own rules over the tree, each refusal with its\n"
    "           code and tag and the element's line and column; warnings (exit\n"
    "           status 0, on standard error, each line led by 'warning:') for\n"
    "           unknown names, key names read as another key, a Delay that is\n"
    "           not a number or wraps, a partition type GUID as a Guid;\n"
    "           with --esp, the loader's kernel action also opens the kernel\n"
    "           and ramdisk of every LoadKernel on the machine that 'morvane\n"
    "           boot' would simulate with the same --esp, --image and --disk,\n"
    "           and each file it cannot open is named with its path, the\n"
    "           partition (the ESP, or number and GUID on which image) and\n"
    "           the loader's code; jobs are not carried out\n"
    "  show     print the elements with their attributes, indented; texts are\n"
    "           shown quoted, except those made only of white space\n"
    "  convert  write the document in the text (xml) or binary (bxml) form;\n"
    "           reading the result gives the same tree\n"
    "\n"
    "FILE, IN and OUT may be '-' for standard input or output.\n"
    "Exit status: 0 success, 1 document refused, a file missing, or not\n"
    "convertible, 2 usage or input/output error.\n";

void PrintConfUsage(std::FILE* out) { std::fputs(kConfUsage, out); }

int UsageError(const std::string& problem) { return UsageProblem("conf", problem, kConfUsage); }

std::string DisplayName(const std::string& path) { return path == "-" ? "<stdin>" : path; }

std::string Decimal(std::uint64_t value) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "%llu", static_cast<unsigned long long>(value));
    return digits;
}

std::string Count(std::uint64_t count, const char* noun) {
    return Decimal(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string CodeText(std::uint32_t code) { return Decimal(code) + " " + ErrorName(code); }

std::string ReasonText(const xml_read_report& report, const Common::Error& stream_error) {
    switch (report.refusal) {
        case xml_refusal::none:
            return "no refusal";
        case xml_refusal::control_byte:
            return "a control character (a byte below 0x20 other than tab, line feed and carriage return)";
        case xml_refusal::bad_markup:
            return "'<' is not followed by a name, '/', '?', '!--' or '![CDATA[' "
                   "(document type declarations are not accepted)";
        case xml_refusal::bad_entity:
            return "an unknown entity, or '&' without a proper end "
                   "(only &amp; &apos; &gt; &lt; &quot; &#N; and &#xN; are known)";
        case xml_refusal::bad_character_reference:
            return "a character reference above U+FFFD or in the surrogate range";
        case xml_refusal::invalid_utf8:
            return "invalid UTF-8 (or a character the document cannot hold)";
        case xml_refusal::bad_tag:
            return "a character that has no place inside a tag";
        case xml_refusal::bad_value:
            return "an attribute value that is not quoted, or holds '<'";
        case xml_refusal::unexpected_end:
            return "the document ends inside an element";
        case xml_refusal::unexpected_token:
            return "markup out of place";
        case xml_refusal::duplicate_attribute:
            return "an attribute that the element already has";
        case xml_refusal::attribute_without_value:
            return "an attribute without '=' and a quoted value";
        case xml_refusal::end_tag_mismatch:
            return "an end tag that does not match the open element";
        case xml_refusal::end_tag_not_closed:
            return "an end tag not closed by '>'";
        case xml_refusal::no_root:
            return "no root element";
        case xml_refusal::content_after_root:
            return "more than white space, comments and processing instructions behind the root element";
        case xml_refusal::unknown_version:
            return "unknown binary form version " + Decimal(report.major_version);
        case xml_refusal::stream_error:
            if (stream_error.Code() == Common::FILE_EOF) {
                return "the document ends early (" + CodeText(stream_error.Code()) + " stored in the stream)";
            }
            return "the stream failed with " + CodeText(stream_error.Code());
        case xml_refusal::too_deep:
            return "elements nested deeper than " + Decimal(xml_max_depth) + " levels";
        case xml_refusal::too_many_elements:
            return "more than " + Decimal(xml_max_elements) + " elements";
        case xml_refusal::too_long:
            return "the document is longer than " + Decimal(xml_max_document_bytes) + " bytes";
    }
    return "unknown reason";
}

// A read that ended in an error of the host file itself is an input/output
// error of the tool, not something the document did.
bool IsHostReadFailure(const xml_read_report& report, const Common::Error& stream_error) {
    return report.refusal == xml_refusal::stream_error && stream_error.Code() != Common::FILE_EOF;
}

struct loaded_document {
    xml_document root;
    xml_read_report report;
    Common::Error stream_error;
    bool whole = false;
};

// Opens and reads `path`; answers false after an input/output error, which
// it has reported.
bool LoadDocument(const std::string& path, loaded_document& document) {
    std::string problem;
    std::unique_ptr<stdio_ifile> input = OpenInput(path, problem);
    if (!input) {
        std::fprintf(stderr, "morvane: %s\n", problem.c_str());
        return false;
    }
    // The host's own reason for a failed read (a folder, an I/O error) is
    // what a person can act on; the stream keeps only the loader's code.
    errno = 0;
    document.whole = read_xml_document(document.root, *input, document.report);
    const int host_cause = errno;
    document.stream_error = input->error();
    // The binary form may answer true without a root element; the loader
    // then finds no action to take, which is the same refusal.
    if (document.whole && !document.root) {
        document.whole = false;
        document.report.refusal = xml_refusal::no_root;
    }
    if (IsHostReadFailure(document.report, document.stream_error)) {
        std::fprintf(stderr, "morvane: cannot read %s: %s\n", DisplayName(path).c_str(),
                     host_cause != 0 ? std::strerror(host_cause) : CodeText(document.stream_error.Code()).c_str());
        return false;
    }
    return true;
}

std::string RefusalLine(const std::string& path, const loaded_document& document) {
    const xml_read_report& report = document.report;
    std::string line = DisplayName(path) + ":";
    if (!report.binary) line += Decimal(report.line) + ":" + Decimal(report.column) + ":";
    line += " byte " + Decimal(report.offset) + ": refused with " + CodeText(Common::BAD_CONFIGURATION) + ": " +
            ReasonText(report, document.stream_error) + "\n";
    return line;
}

struct tree_counts {
    std::uint64_t elements = 0;
    std::uint64_t attributes = 0;
    std::uint64_t depth = 0;
};

// Walks the tree in document order without recursion; `visit` sees each
// element with its depth, and each text with the depth of its children.
template <typename ElementVisitor, typename TextVisitor>
void WalkTree(const xml_element& root, ElementVisitor visit_element, TextVisitor visit_text) {
    struct position {
        const xml_element* element;
        std::size_t next;
    };
    std::vector<position> open;
    visit_element(root, 0);
    open.push_back({&root, 0});
    while (!open.empty()) {
        position& current = open.back();
        const xml_element& element = *current.element;
        std::size_t index = current.next++;
        if (index < element.texts.size()) visit_text(element.texts[index], open.size());
        if (index < element.children.size()) {
            const xml_element& child = *element.children[index];
            visit_element(child, open.size());
            open.push_back({&child, 0});
        } else {
            open.pop_back();
        }
    }
}

tree_counts CountTree(const xml_element& root) {
    tree_counts counts;
    WalkTree(
        root,
        [&](const xml_element& element, std::size_t depth) {
            ++counts.elements;
            counts.attributes += element.attributes.size();
            if (depth + 1 > counts.depth) counts.depth = depth + 1;
        },
        [](const std::u16string&, std::size_t) {});
    return counts;
}

std::string ShowName(const std::string& name) {
    std::string out;
    for (unsigned char byte : name) {
        if (byte > 0x20 && byte < 0x7F && byte != '\\' && byte != '"') {
            out.push_back(static_cast<char>(byte));
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02X", byte);
            out += escape;
        }
    }
    return out;
}

std::string ShowValue(const std::u16string& value) {
    std::string out = "\"";
    for (char16_t unit : value) {
        // Backslashes stay as they are: the paths in these documents are
        // full of them.
        if (unit == u'"') {
            out += "\\\"";
        } else if (unit == u'\n') {
            out += "\\n";
        } else if (unit == u'\t') {
            out += "\\t";
        } else if (unit == u'\r') {
            out += "\\r";
        } else if (unit < 0x20 || unit == 0x7F || (unit >= 0xD800 && unit <= 0xDFFF) || unit >= 0xFFFE) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(unit));
            out += escape;
        } else {
            out += utf16_to_utf8(&unit, 1);
        }
    }
    return out + "\"";
}

bool IsBlank(const std::u16string& text) {
    for (char16_t unit : text) {
        if (unit != u' ' && unit != u'\t' && unit != u'\n' && unit != u'\r') return false;
    }
    return true;
}

std::string ShowTree(const xml_element& root) {
    std::string out;
    WalkTree(
        root,
        [&](const xml_element& element, std::size_t depth) {
            out.append(depth * 2, ' ');
            out += ShowName(element.name);
            for (const auto& attribute : element.attributes) {
                out += " " + ShowName(attribute.first) + "=" + ShowValue(attribute.second);
            }
            out.push_back('\n');
        },
        [&](const std::u16string& text, std::size_t depth) {
            if (IsBlank(text)) return;
            out.append(depth * 2, ' ');
            out += ShowValue(text) + "\n";
        });
    return out;
}

// "FILE:LINE:COLUMN: <Name>", or "FILE: <Name>" for the binary form.
std::string ElementLead(const std::string& path, const xml_element& element) {
    return DisplayName(path) + (element.line == 0 ? ": " : ":") + ElementPlace(element);
}

// Each file that the kernel actions could not open, at the element naming
// it; false when the machine could not be built (reported).
bool PrintMissingFiles(const std::string& path, const xml_element& root, const conf_machine& machine,
                       conf_files& files) {
    std::string problem;
    if (!CheckFiles(root, machine, files, problem)) {
        std::fprintf(stderr, "morvane conf: %s\n", problem.c_str());
        return false;
    }
    for (const conf_missing_file& file : files.missing) {
        std::printf("%s: %s\n", ElementLead(path, *file.element).c_str(), file.lead.c_str());
    }
    return true;
}

int Check(const std::string& path, const conf_machine& machine) {
    loaded_document document;
    if (!LoadDocument(path, document)) return kExitUsageOrIo;
    if (!document.whole) {
        std::fputs(RefusalLine(path, document).c_str(), stdout);
        return kExitRefused;
    }
    for (const std::string& warning : CheckWarnings(*document.root)) {
        std::fprintf(stderr, "warning: %s%s%s\n", DisplayName(path).c_str(), warning[0] == '<' ? ": " : ":",
                     warning.c_str());
    }
    tree_counts counts = CountTree(*document.root);
    EfiLoader::ConfigurationFile loaded;
    loaded.Adopt(std::move(document.root));
    std::vector<conf_refusal> refusals = CheckRules(loaded);
    for (const conf_refusal& refusal : refusals) {
        std::printf("%s: refused with %s (tag 0x%016llx)\n", ElementLead(path, *refusal.element).c_str(),
                    CodeText(refusal.code).c_str(), static_cast<unsigned long long>(refusal.tag));
    }
    conf_files files;
    if (!machine.esp.empty() && !PrintMissingFiles(path, *loaded.Root(), machine, files)) return kExitUsageOrIo;
    if (!refusals.empty() || !files.missing.empty()) return kExitRefused;
    std::string form = document.report.binary ? "binary document version " + Decimal(document.report.major_version) +
                                                    "." + Decimal(document.report.minor_version)
                                              : "text document";
    std::printf("ok: %s: %s, root <%s>, %s, %s, %s\n", DisplayName(path).c_str(), form.c_str(),
                ShowName(loaded.Root()->name).c_str(), Count(counts.elements, "element").c_str(),
                Count(counts.attributes, "attribute").c_str(), Count(counts.depth, "level").c_str());
    if (!machine.esp.empty()) std::printf("files: %s opened, none missing\n", Count(files.opened, "file").c_str());
    return kExitOk;
}

int Show(const std::string& path) {
    loaded_document document;
    if (!LoadDocument(path, document)) return kExitUsageOrIo;
    if (!document.whole) {
        std::fputs(RefusalLine(path, document).c_str(), stderr);
        return kExitRefused;
    }
    std::fputs(ShowTree(*document.root).c_str(), stdout);
    return kExitOk;
}

const char* ProblemText(xml_write_problem problem, bool binary) {
    switch (problem) {
        case xml_write_problem::none:
            return "no problem";
        case xml_write_problem::bad_name:
            return "a name that the text form cannot carry (names start with a letter, '_' or ':' "
                   "and go on with letters, digits, '_', ':', '-' and '.')";
        case xml_write_problem::unwritable_character:
            return binary ? "a U+0000 character, which the binary form cannot carry"
                          : "a character that the text form cannot carry (U+FFFE, U+FFFF or a surrogate)";
        case xml_write_problem::too_many_attributes:
            return "more than 255 attributes, which the binary form cannot count";
    }
    return "unknown problem";
}

int Convert(const std::string& form, const std::string& in, const std::string& out) {
    const bool binary = form == "bxml";
    loaded_document document;
    if (!LoadDocument(in, document)) return kExitUsageOrIo;
    if (!document.whole) {
        std::fputs(RefusalLine(in, document).c_str(), stderr);
        return kExitRefused;
    }
    std::string bytes;
    xml_write_failure failure =
        binary ? write_bxml(*document.root, bytes) : write_xml_text(*document.root, bytes);
    if (failure) {
        std::fprintf(stderr, "morvane: %s cannot be written as %s: element %s: %s\n", DisplayName(in).c_str(),
                     form.c_str(), ShowName(failure.element->name).c_str(), ProblemText(failure.problem, binary));
        return kExitRefused;
    }
    std::string problem;
    if (!WriteOutput(out, bytes, problem)) {
        std::fprintf(stderr, "morvane: %s\n", problem.c_str());
        return kExitUsageOrIo;
    }
    return kExitOk;
}

bool IsHelp(const char* argument) { return std::strcmp(argument, "--help") == 0 || std::strcmp(argument, "-h") == 0; }

}  // namespace

int RunConfCommand(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (IsHelp(argv[i])) {
            PrintConfUsage(stdout);
            return kExitOk;
        }
    }
    if (argc < 2) return UsageError("missing action: check, show or convert");
    const std::string action = argv[1];
    std::vector<std::string> operands;
    std::string form;
    conf_machine machine;
    bool machine_given = false;
    for (int i = 2; i < argc; ++i) {
        std::string argument = argv[i];
        const bool machine_option = argument == "--esp" || argument == "--disk" || argument == "--image";
        if (action == "check" && machine_option) {
            if (i + 1 >= argc) return UsageError(argument + " needs a value");
            std::string value = argv[++i];
            if (argument == "--esp") machine.esp = value;
            if (argument == "--image") machine.image = value;
            if (argument == "--disk") machine.disks.push_back(value);
            machine_given = true;
        } else if (action == "convert" && argument == "--to") {
            if (i + 1 >= argc) return UsageError("--to needs a form: xml or bxml");
            form = argv[++i];
        } else if (action == "convert" && argument.compare(0, 5, "--to=") == 0) {
            form = argument.substr(5);
        } else if (argument.size() > 1 && argument[0] == '-') {
            return UsageError(("unknown option '" + argument + "'").c_str());
        } else {
            operands.push_back(argument);
        }
    }
    if (action == "check" || action == "show") {
        if (operands.size() != 1) return UsageError(("'" + action + "' takes one FILE").c_str());
        if (machine_given && machine.esp.empty()) return UsageError("--disk and --image need --esp DIR");
        return action == "check" ? Check(operands[0], machine) : Show(operands[0]);
    }
    if (action == "convert") {
        if (form.empty()) return UsageError("convert needs --to xml or --to bxml");
        if (form != "xml" && form != "bxml") return UsageError(("unknown form '" + form + "': xml or bxml").c_str());
        if (operands.size() != 2) return UsageError("convert takes IN and OUT");
        return Convert(form, operands[0], operands[1]);
    }
    return UsageError(("unknown action '" + action + "'").c_str());
}

}  // namespace MorvaneTool
