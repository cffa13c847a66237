#include "support/output_capture.h"

#include "journal/output.h"

#include <gtest/gtest.h>

OutputCapture::OutputCapture() {
    open_log_file(directory_.path("log").c_str());
    testing::internal::CaptureStdout();
}

OutputCapture::~OutputCapture() {
    if (!taken_) {
        take();
    }
}

WrittenOutput OutputCapture::take() {
    taken_ = true;
    close_log_file();
    return {testing::internal::GetCapturedStdout(), read_file(directory_.path("log"))};
}
