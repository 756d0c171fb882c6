// Run parameters: the text summary, output file names and the data segment lookup.
#include <gtest/gtest.h>

#include "run/Input.hpp"
#include "support/InputBundles.hpp"
#include "vorlap/Console.hpp"

using namespace FullWaveform;
namespace fs = std::filesystem;

TEST(InputSpeak, SevenLinesWithExactSpacing) {
  Input in;
  in.MTA = -1;
  in.fwfModus = FWF_FAST_PEAKS;
  in.exportFWF = false;
  in.noiseLevel = 2.5;
  in.skipFWF = true;
  in.skipOnline = false;
  in.RDB_SEGMENT = -1;
  EXPECT_EQ(in.speak(),
            "MTA: -1\nFWF-Modus: FastPeaks\nExport FWF  No \nNoiseLevel 2.5\nSkipFWF  Yes \n"
            "SkipOnline  No \nData is from file:  RXP \n");
  in.exportFWF = true;
  in.RDB_SEGMENT = 0;
  const std::string text = in.speak();
  EXPECT_NE(text.find("\nExport FWF  Yes \n"), std::string::npos);
  EXPECT_EQ(text.substr(text.rfind("Data")), "Data is from file:  RDB \n");
  for (auto [level, shown] : {std::pair{100.0, "100"}, {1000000.0, "1e+06"}, {0.0001, "1e-04"}}) {
    in.noiseLevel = level;
    EXPECT_NE(in.speak().find(std::string("NoiseLevel ") + shown + "\n"), std::string::npos)
        << shown;
  }
}

TEST(InputOutFileName, SegmentsAndSuffixes) {
  Input in;
  auto names = [&](const char* file, int segment) {
    in.RDB_SEGMENT = segment;
    auto [a, b] = in.getOutFileName(fs::path(file));
    return std::make_pair(a.string(), b.string());
  };
  EXPECT_EQ(names("D:/run/scan_rdb.rdbx", -1), std::make_pair(std::string("D:/run/scan_rdb_1.kq"),
                                                              std::string("D:/run/scan_rdb_0.kq")));
  EXPECT_EQ(names("D:/run/scan_rdb.rdbx", 0),
            std::make_pair(std::string("D:/run/scan.kq"), std::string()));
  EXPECT_EQ(names("D:/run/scan_rdb.rdbx", 1),
            std::make_pair(std::string(), std::string("D:/run/scan.kq")));
  EXPECT_EQ(names("D:/run/scan_rdb.rdbx", -4),
            std::make_pair(std::string(), std::string("D:/run/scan.kq")));
  EXPECT_EQ(names("_rdb.rdbx", 0), std::make_pair(std::string("_rdb.kq"), std::string()));
  EXPECT_EQ(names("scan.rxp", -1),
            std::make_pair(std::string("scan_1.kq"), std::string("scan_0.kq")));
  EXPECT_EQ(names("scan_RDB.rdbx", 0).first, "scan_RDB.kq");
  Vorlap::ConsoleCapture capture;
  EXPECT_EQ(names("D:/run/scan_rdb.rdbx", 7), std::make_pair(std::string(), std::string()));
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"getOutFileName: Invalid RDB_SEGMENT"});
}

TEST(InputSegment, ReadFromTheShotsGrid) {
  Input in;
  in.RDB_SEGMENT = 5;
  Tessal::BundlePtr none;
  EXPECT_EQ(in.setIsDataFrom_RDBX_File(none), "setIsDataFrom_RDBX_File:: BP null");
  auto noShots = Tessal::BundlePtr::make();
  EXPECT_EQ(in.setIsDataFrom_RDBX_File(noShots), "setIsDataFrom_RDBX_File:: Grid null*");
  auto bundle = quillo::test::makeShotsBundle({{{1, 2, 3}}});
  EXPECT_EQ(in.setIsDataFrom_RDBX_File(bundle), "setIsDataFrom_RDBX_File:: Attr null");
  auto shots = (*(*bundle.create())[0.0])("Shots");
  shots->attributes().setAttribute("RDB_Segment", Vorlap::makeChunk<double>({1.0}));
  EXPECT_EQ(in.setIsDataFrom_RDBX_File(bundle), "setIsDataFrom_RDBX_File:: Attr null");
  shots->attributes().setAttribute("RDB_Segment", Vorlap::makeChunk<int>({}));
  EXPECT_EQ(in.setIsDataFrom_RDBX_File(bundle), "setIsDataFrom_RDBX_File:: Attr null");
  EXPECT_EQ(in.RDB_SEGMENT, 5);
  shots->attributes().setAttribute("RDB_Segment", Vorlap::makeChunk<int>({1, 0}));
  EXPECT_EQ(in.setIsDataFrom_RDBX_File(bundle), "");
  EXPECT_EQ(in.RDB_SEGMENT, 1);
}
