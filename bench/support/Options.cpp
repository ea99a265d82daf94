#include "support/Options.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

namespace bench {

int runBenchmark(int argc, char** argv, const std::string& purpose,
                 const std::function<int(const Options&)>& run) {
  Options options;
  CLI::App app(purpose);
  app.add_flag("--quick", options.quick, "A smoke run: checks that it works, measures nothing");
  app.add_option("--json", options.json, "Add the figures to this file");
  try {
    app.parse(argc, argv);
    return run(options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::exception& error) {
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return 1;
  }
}

}  // namespace bench
