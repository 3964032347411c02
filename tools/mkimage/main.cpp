// ambrel-mkimage: writes a raw drive image from a JSON description.
#include <CLI/CLI.hpp>
#include <chrono>
#include <fstream>
#include <iostream>

#include "ImageBuilder.h"

int main(int argc, char** argv) {
  CLI::App app{"Writes a raw drive image (partition table and HFS+/HFSX volumes) from a JSON description."};
  std::string description, output, layoutPath;
  bool demo = false;
  app.add_option("description", description, "JSON description file (see tools/mkimage/README.md)");
  app.add_option("-o,--output", output, "image file to write")->required();
  app.add_option("--layout", layoutPath, "write where everything landed as JSON to this file ('-' for stdout)");
  app.add_flag("--demo", demo, "build the demo drive instead of a description");
  CLI11_PARSE(app, argc, argv);
  if (description.empty() == !demo) {
    std::cerr << "give either a description file or --demo\n";
    return 2;
  }
  try {
    auto start = std::chrono::steady_clock::now();
    ambrel::mkimage::DriveSpec spec = demo ? ambrel::mkimage::demoDrive() : ambrel::mkimage::loadDescription(description);
    ambrel::mkimage::DriveLayout layout = ambrel::mkimage::buildImage(spec, output);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!layoutPath.empty()) {
      std::string json = ambrel::mkimage::layoutToJson(layout);
      if (layoutPath == "-") {
        std::cout << json << "\n";
      } else {
        std::ofstream(layoutPath) << json << "\n";
      }
    }
    std::cerr << "wrote " << output << " (" << layout.sizeBytes << " bytes) in " << seconds << " s\n";
  } catch (const std::exception& e) {
    std::cerr << "ambrel-mkimage: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
