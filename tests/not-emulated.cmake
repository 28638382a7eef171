# The C++ cases that user emulation of another processor cannot run, by reason. They run natively in the other presets,
# and on a real kernel in the guests of scripts/vm-test; server_tests, the one program that these lack, runs here whole.
set(KIV_NOT_EMULATED
  # A program of that processor can be started by its emulator alone, not by exec, and these start one.
  ExecWaitFiles.EmptyNamesMeanDevNull
  ExecWaitFiles.AreOpenForWritingOnly
  ExecWaitCaptureOutput.IsWholeWhateverItsSize
  ExecWaitCaptureOutput.OfSixtyFourMebibytesIsWhole
  ExecWaitCaptureOutput.HasBothStreamsInTheOrderOfWriting
  Spawning.FromManyThreadsNoProgramGetsADescriptorOfAnother
  Exec/BothWays.GiveHundredTwentyEightAndTheSignalThatKilledTheProgram/*
  Exec/BothWays.HandOver*
  Exec/BothWays.NameTheProgramByTheLastComponentOfItsPath/*
  Exec/BothWays.KeepFolderUmaskSessionAndGroupOfTheCaller/*
  Exec/BothWays.GiveTheProgramNoStandardInput/*
  Exec/BothWays.WorkForACallerWithoutStandardInput/*
  Exec/BothWays.CloseEveryOtherDescriptorInTheProgramAlone/*

  # The emulator refuses PR_SET_CHILD_SUBREAPER: orphans that a case waits for go to somebody else.
  Daemonize.GivesAProcessOfANewSessionThatItDoesNotLead
  Daemonize.MakesTheReaperTheParent
  Daemonize.WorksFromTheLeaderOfAGroupOrSession
  Daemonize.LeavesTheTerminalAndCannotGetOne
  Daemonize.PutsTheStandardDescriptorsOnDevNull
  Daemonize.HasNothingButDevNullWhicheverStandardDescriptorsWereClosed
  Daemonize.ClosesAllOtherDescriptors
  Daemonize.GoesToTheRootWithoutAUmask
  Daemonize.IgnoresSigpipeAndKeepsTheOtherSignalsAndTheMask
  Daemonize.SurvivesABrokenPipe
  Daemonize.EndsThe*
  DaemonizeAsRoot.*
  DaemonizeSuccess.*
  DaemonizeFailure.*
  StartDetached.*
  StartProcessDetachedFailure.*
  StartProcessDetachedChild.*
  ExecWaitFiles.HeldByAProgramLeftBehindDoNotDelayTheCall
  PidFileLock.IsRefusedWhileAForkedChildOfAKilledHolderLives
  Spawning.FromManyThreadsEveryDetachedProgramRunsOnce
  Spawning.ALongLivedProgramOfAnotherThreadDoesNotDelayACapture

  # The emulator has a thread of its own, and CLONE_NEWUSER is for processes with one.
  DropRootPrivileges.StopsAtTheGroupsInAUserNamespaceThatMayNotSetThem

  # Address zero of the emulated program lies elsewhere in what /proc/self/mem shows. (On 32-bit Arm there is none.)
  UnreadableTables.LinesBeforeAFailedReadAreKept
)

# On 64-bit machines the emulator has an ip_mreqn with an index of eight bytes, and takes that of four for an ip_mreq.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  list(APPEND KIV_NOT_EMULATED
    SubscribeMulticast.JoinsByInterfaceIndex
    UnsubscribeMulticast.LeavesByInterfaceIndex
  )
endif()
