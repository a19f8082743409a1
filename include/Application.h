// ApplicationBase: the base class of an application. It holds the application's name, the path
// of its configuration file and the two life-cycle flags; everything an application does lives
// in the derived class's run, initialize and _canRunAnalysis. The library calls none of them:
// the order (initialize before run) is the application's own.
//
// No locks, no threads of its own.
#pragma once

#include <string>

namespace Ombrel {

class ApplicationBase {
public:
    // Stores both texts; the flags start false and _analysisIndex at 0.
    ApplicationBase(const std::string& appName, const std::string& configFilePath);
    virtual ~ApplicationBase();

    // The application's main loop. The default does nothing.
    virtual void run();
    // The application's set-up. The default sets _isInitialized and returns it.
    virtual bool initialize();
    // Whether the analysis may run now. The default returns true.
    virtual bool _canRunAnalysis() const;

    std::string getAppName() const { return _appName; }
    std::string getConfigFilePath() const { return _configFilePath; }
    bool isRunning() const { return _isRunning; }
    bool isInitialized() const { return _isInitialized; }

protected:
    std::string _appName;
    std::string _configFilePath;
    // Free for the derived application's use; the base class never reads it.
    int _analysisIndex = 0;
    // Owned by the derived run(); the base class never sets it.
    bool _isRunning = false;
    bool _isInitialized = false;
};

} // namespace Ombrel
