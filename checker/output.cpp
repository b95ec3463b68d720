// A report for people, for programs, and for a build server.
#include "checker/checker.h"

#include <cstdio>

namespace checker {

namespace {

const char* Word(Verdict verdict)
{
    switch (verdict) {
    case Verdict::Held: return "held";
    case Verdict::Broken: return "broken";
    default: return "not tried";
    }
}

std::string Indented(const std::string& text)
{
    std::string indented;
    for (const char c : text) {
        indented += c;
        if (c == '\n') indented += "            ";
    }
    return indented;
}

std::string Explained(const Property& rule, const std::string& call, const std::string& got)
{
    return "    rule:   " + std::string(rule.Rule) + "\n    call:   " + Indented(call) +
           "\n    got:    " + Indented(got) + "\n    do:     " + rule.Remedy + "\n";
}

std::string JsonText(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        char escape[8];
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + '"';
}

std::string XmlText(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        case '&': escaped += "&amp;"; break;
        case '"': escaped += "&quot;"; break;
        default: escaped += static_cast<unsigned char>(c) < 0x20 && c != '\n' ? ' ' : c;
        }
    }
    return escaped;
}

unsigned Count(const Report& report, Verdict verdict)
{
    unsigned count = 0;
    for (const Result& result : report.Results) count += result.Outcome == verdict;
    return count;
}

} // namespace

std::string AsText(const Report& report)
{
    std::string text;
    for (const Result& result : report.Results) {
        char line[80];
        std::snprintf(line, sizeof line, "%-10s  %s", Word(result.Outcome), result.Rule->Id);
        text += line;
        if (result.Outcome == Verdict::Broken && result.Times > 1)
            text += "  (" + std::to_string(result.Times) + " times)";
        text += '\n';
        if (result.Outcome == Verdict::Broken) text += Explained(*result.Rule, result.Call, result.Got);
    }
    return text + report.Plugin + ", seed " + std::to_string(report.Seed) + ": " +
           std::to_string(Count(report, Verdict::Held)) + " rules held, " +
           std::to_string(Count(report, Verdict::Broken)) + " broken, " +
           std::to_string(Count(report, Verdict::NotTried)) + " not tried\n";
}

std::string AsText(const Breach& breach)
{
    for (const Property* property = kProperties; property->Id; ++property)
        if (breach.Property == property->Id)
            return "the plugin breaks " + breach.Property + "\n" + Explained(*property, breach.Call, breach.Got);
    return breach.Property + "\n";
}

std::string AsJson(const Report& report)
{
    std::string text = "{\n  \"plugin\": " + JsonText(report.Plugin) + ",\n  \"seed\": " + std::to_string(report.Seed) +
                       ",\n  \"properties\": [";
    for (const Result& result : report.Results) {
        text += &result == report.Results.data() ? "\n" : ",\n";
        text += "    {\"id\": " + JsonText(result.Rule->Id) + ", \"verdict\": " + JsonText(Word(result.Outcome));
        if (result.Outcome == Verdict::Broken) {
            text += ", \"times\": " + std::to_string(result.Times) + ", \"rule\": " + JsonText(result.Rule->Rule) +
                    ", \"call\": " + JsonText(result.Call) + ", \"got\": " + JsonText(result.Got) +
                    ", \"do\": " + JsonText(result.Rule->Remedy);
        }
        text += "}";
    }
    return text + "\n  ]\n}\n";
}

std::string AsJUnit(const Report& report)
{
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"gvnd check " +
                       XmlText(report.Plugin) + "\" tests=\"" + std::to_string(report.Results.size()) +
                       "\" failures=\"" + std::to_string(Count(report, Verdict::Broken)) + "\" skipped=\"" +
                       std::to_string(Count(report, Verdict::NotTried)) + "\">\n";
    for (const Result& result : report.Results) {
        text += "  <testcase classname=\"" + XmlText(report.Plugin) + "\" name=\"" + result.Rule->Id + "\">";
        if (result.Outcome == Verdict::NotTried) text += "<skipped/>";
        if (result.Outcome == Verdict::Broken) {
            text += "<failure message=\"" + XmlText(result.Rule->Rule) + "\">" + XmlText(result.Call) + "\n" +
                    XmlText(result.Got) + "\n" + XmlText(result.Rule->Remedy) + "</failure>";
        }
        text += "</testcase>\n";
    }
    return text + "</testsuite>\n";
}

} // namespace checker
