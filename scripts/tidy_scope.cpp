// A plugin of clang's that scripts/tidy loads into clang-tidy: the checks match what isn't declared
// in system headers. Unasked they match all of it, for half of clang-tidy's time, and what they
// find there isn't shown, unless a note of it points to our text. Later versions of clang-tidy
// leave it out by themselves. The compiler's warnings and the analyzer are not concerned.
//
// A declaration is ours as it stands in our text, a specialisation in a namespace of the library's
// or an extern "C" around an include, too; and a template of ours with all that it became.
#include "clang/AST/ASTConsumer.h"
#include "clang/AST/ASTContext.h"
#include "clang/Basic/SourceManager.h"
#include "clang/Frontend/FrontendAction.h"
#include "clang/Frontend/FrontendPluginRegistry.h"

#include <memory>
#include <string>
#include <vector>

namespace {

class scope_of_ours : public clang::ASTConsumer {
    void HandleTranslationUnit(clang::ASTContext &context) override {
        const clang::SourceManager &sources = context.getSourceManager();
        std::vector<clang::Decl *> ours;
        for (clang::Decl *declared : context.getTranslationUnitDecl()->decls()) {
            const clang::SourceLocation place = declared->getLocation();
            if (place.isValid() && !sources.isInSystemHeader(place)) {
                ours.push_back(declared);
            }
        }
        context.setTraversalScope(ours);
    }
};

class ours_before_checks : public clang::PluginASTAction {
    std::unique_ptr<clang::ASTConsumer> CreateASTConsumer(clang::CompilerInstance & /*compiler*/,
                                                          llvm::StringRef /*file*/) override {
        return std::make_unique<scope_of_ours>();
    }
    bool ParseArgs(const clang::CompilerInstance & /*compiler*/,
                   const std::vector<std::string> & /*arguments*/) override {
        return true;
    }
    ActionType getActionType() override { return AddBeforeMainAction; }
};

const clang::FrontendPluginRegistry::Add<ours_before_checks>
    REGISTERED("ours-before-checks", "leaves what system headers declare out of what is matched");

} // namespace
