#include "support/service_process.h"

#include <signal.h>
#include <tinyxml.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "crc32.h"
#include "md5.h"

namespace Varnelo {

namespace {

Clock::time_point After(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }

}  // namespace

ServiceProcess::ServiceProcess(const std::string& binary, const std::vector<std::string>& args) {
    if (!m_child.Start(binary, args, m_dir.Path("stderr"))) throw std::runtime_error("fork failed");
    // The test must not die if the child has already closed its input.
    signal(SIGPIPE, SIG_IGN);
}

ServiceProcess::~ServiceProcess() { m_child.Kill(); }

std::vector<std::string> ServiceProcess::ReadResponses(std::size_t count, int timeoutMs) {
    const Clock::time_point deadline = After(timeoutMs);
    std::vector<std::string> responses;
    std::string response;
    while (responses.size() < count && m_child.WaitResponse(response, deadline)) {
        responses.push_back(response);
    }
    return responses;
}

std::string ServiceProcess::ReadRest(int timeoutMs) { return m_child.TakeRest(After(timeoutMs)); }

int ServiceProcess::Wait(int timeoutMs) {
    return m_child.Exited(After(timeoutMs)) ? m_child.ExitStatus() : -1;
}

PrivateService::PrivateService() : m_binary(m_dir.Path("varnelo")) {
    std::filesystem::copy_file(VARNELO_BIN, m_binary);
}

std::vector<std::string> PrivateService::LogLines() const {
    return Lines(ReadFileBytes(LogPath()));
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string Request(const std::string& method, const std::string& params) {
    return "<?xml version=\"1.0\"?>\n<methodCall>\n<methodName>" + method + "</methodName>\n" +
           (params.empty() ? "" : "<params>\n" + params + "</params>\n") + "</methodCall>\n*\n";
}

std::string ImageParam(int id, const std::string& src, const std::string& dst,
                       const std::string& more) {
    return "<param><value><struct>" + Member("imageId", "i4", std::to_string(id)) +
           Member("sourcePath", "string", src) + Member("destPath", "string", dst) + more +
           "</struct></value></param>\n";
}

namespace {

std::string Response(const std::string& value) {
    return "<methodResponse>\n <params>\n  <param>\n   <value>\n" + value +
           "   </value>\n  </param>\n </params>\n</methodResponse>\n";
}

std::string StructMember(const std::string& name, const std::string& type,
                         const std::string& text) {
    return "     <member>\n      <name>" + name + "</name>\n      <value>\n       <" + type + ">" +
           text + "</" + type + ">\n      </value>\n     </member>\n";
}

void Collect(TiXmlElement* fields, const std::string& prefix, ImageAnswer& answer) {
    for (TiXmlElement* m = fields->FirstChildElement("member"); m != nullptr;
         m = m->NextSiblingElement("member")) {
        const std::string name = m->FirstChildElement("name")->GetText();
        if (prefix.empty()) answer.members.push_back(name);
        TiXmlElement* typed = m->FirstChildElement("value")->FirstChildElement();
        if (std::string(typed->Value()) == "struct") {
            Collect(typed, prefix + name + "/", answer);
        } else {
            answer.values[prefix + name] = typed->GetText() != nullptr ? typed->GetText() : "";
        }
    }
}

std::string TailHash(Hash&& hash, const std::string& path) {
    return hash.File(path.c_str(), Hash::FROM_END, 2048) ? hash.GetResultString() : "unreadable";
}

}  // namespace

const std::string kDone = Response("    <string>done</string>\n");
const std::string kConnected =
    Response("    <struct>\n" + StructMember("minVersion", "i4", "1") +
             StructMember("currentVersion", "i4", "4") + StructMember("accepted", "boolean", "1") +
             "    </struct>\n");
const std::string kNoPicasa = Response(
    "    <struct>\n" + StructMember("picasaInstalled", "boolean", "0") + "    </struct>\n");

std::vector<ImageAnswer> ImageAnswers(const std::string& response) {
    std::vector<ImageAnswer> answers;
    TiXmlDocument doc;
    doc.Parse(response.c_str());
    TiXmlElement* params =
        TiXmlHandle(&doc).FirstChildElement("methodResponse").FirstChildElement("params").Element();
    if (doc.Error() || params == nullptr) return answers;
    for (TiXmlElement* param = params->FirstChildElement("param"); param != nullptr;
         param = param->NextSiblingElement("param")) {
        TiXmlElement* fields =
            TiXmlHandle(param).FirstChildElement("value").FirstChildElement("struct").Element();
        if (fields == nullptr) return {};  // not an image method's answer
        answers.emplace_back();
        Collect(fields, "", answers.back());
    }
    return answers;
}

std::string TailCrc32(const std::string& path) { return "S1|" + TailHash(CRC32(), path); }
std::string TailMd5(const std::string& path) { return "S2|" + TailHash(MD5(), path); }

}  // namespace Varnelo
