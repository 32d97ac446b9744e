// Building an XmlReader tree against raw expat counting elements, on a real
// document Debian ships and on a generated 20 MB document with wide elements
// (many attributes and long text per element).
#include "ratio_reporter.h"

#include <kestrel/xml.h>

#include <QFile>

#include <expat.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

std::string realDocument() {
  QFile file(QStringLiteral("/usr/share/mime/packages/freedesktop.org.xml"));
  if (!file.open(QIODevice::ReadOnly)) return {};
  const QByteArray contents = file.readAll();
  return contents.toStdString();
}

// About 20 MB of wide elements: each record carries a dozen attributes and a
// paragraph of text, with two short children.
std::string generatedDocument() {
  std::string document = "<?xml version='1.0' encoding='UTF-8'?>\n<catalog>\n";
  for (int i = 0; document.size() < 20'000'000; ++i) {
    const std::string n = std::to_string(i);
    document += "  <record id='" + n + "' kind='placemark' visibility='1' open='0' style='#s" + n +
                "' lat='37." + n + "' lon='-122." + n + "' alt='" + n +
                "' heading='90' tilt='45' range='1000' mode='relative'>\n"
                "    <name>Record " +
                n +
                "</name><when>2007-05-17T10:20:30Z</when>\n"
                "    A paragraph of description for record " +
                n +
                " that goes on for a while, as descriptions do, with a few words &amp; an "
                "entity, some punctuation, and numbers such as " +
                n +
                " and 3.14159.\n"
                "  </record>\n";
  }
  document += "</catalog>\n";
  return document;
}

const std::string& document(int which) {
  if (which == 0) {
    static const std::string real = realDocument();
    return real;
  }
  static const std::string generated = generatedDocument();
  return generated;
}

void treeBuild(benchmark::State& state) {
  const std::string& text = document(static_cast<int>(state.range(0)));
  if (text.empty()) {
    state.SkipWithError("document not available");
    return;
  }
  for (auto _ : state) {
    auto reader =
        std::make_unique<kestrel::XmlReader>(text.data(), static_cast<qsizetype>(text.size()));
    benchmark::DoNotOptimize(reader->root);
    // Freeing the tree is not part of building it.
    state.PauseTiming();
    reader.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}

void expatCount(benchmark::State& state) {
  const std::string& text = document(static_cast<int>(state.range(0)));
  if (text.empty()) {
    state.SkipWithError("document not available");
    return;
  }
  for (auto _ : state) {
    long count = 0;
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &count);
    XML_SetStartElementHandler(
        parser, [](void* user, const XML_Char*, const XML_Char**) { ++*static_cast<long*>(user); });
    XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1);
    XML_ParserFree(parser);
    benchmark::DoNotOptimize(count);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}

BENCHMARK(treeBuild)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(expatCount)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void printRatios(const kestrel::bench::RatioReporter& reporter) {
  // Throughput of the tree >= 0.8x that of expat means time <= 1.25x.
  std::printf(
      "\nXmlReader tree time / expat counting time (0: freedesktop.org.xml, 1: generated 20 MB)\n");
  reporter.printRatio("treeBuild/0", "expatCount/0", 1.25);
  reporter.printRatio("treeBuild/1", "expatCount/1", 1.25);
}

}  // namespace

int main(int argc, char** argv) {
  return kestrel::bench::runWithRatios(argc, argv, printRatios);
}
