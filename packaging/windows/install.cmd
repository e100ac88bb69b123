@echo off
rem SPDX-License-Identifier: MIT
rem Puts the driver into a system that is installed already, as a driver that the boot loader loads. The system keeps
rem starting from its own disk until it is started from a server. remove.cmd is the way back.
setlocal
set target=%SystemRoot%\system32\drivers\qrndisk.sys
if exist "%target%" copy /y "%target%" "%target%.old" >nul
copy /y "%~dp0qrndisk.sys" "%target%" >nul
if errorlevel 1 goto failed
regedit /s "%~dp0qrndisk.reg"
if errorlevel 1 goto failed
echo qrndisk is installed and is loaded at the next start.
exit /b 0
:failed
echo qrndisk could not be installed. It takes an administrator.
exit /b 1
