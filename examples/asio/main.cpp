// A host with a Boost.Asio io_context. Tasks are posted through a strand: it runs them one at a time in
// the order posted, which a bare io_context does not promise. The work guard keeps run() from returning
// while requests are out and nothing is queued yet.
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include "ExampleHost.h"

namespace asio = boost::asio;

int main(int argc, char** argv) {
  const auto options = example::parseArguments(argc, argv);
  if (!options) return 2;
  auto service = example::makeService(*options);
  if (!service) return 1;

  asio::io_context ioc;
  auto strand = asio::make_strand(ioc);
  OrvMainQueue::setBridge([strand](OrvMainQueue::Task task) { asio::post(strand, std::move(task)); });

  auto work = asio::make_work_guard(ioc);
  std::optional<int> exitCode;
  example::discoverThenRetrieveSettings(service, options->input, [&](int code) {
    exitCode = code;
    work.reset();
  });
  ioc.run();

  OrvMainQueue::setBridge({});
  return exitCode.value_or(1);
}
